#!/bin/sh
# Runs a test program inside a private network namespace whose only interface
# is loopback, so that datagrams to the network transport's default device
# address and to the broadcast address stay inside the namespace.
#
#   run-in-netns.sh [--loopback-only] program [arguments...]
#
# By default 100.100.100.100/32 is added to lo (a fake device can listen
# there), and the default route and 255.255.255.255 lead to lo.
# With --loopback-only lo keeps only 127.0.0.1 and ::1 and there are no
# routes: a machine without any other address.
#
# Exits 77, which CTest reports as skipped, where no namespace can be made.
set -u

skip() {
    echo "SKIP: $1; the tests that need a private network namespace did not run" >&2
    exit 77
}

mode=full
if [ "${1:-}" = "--loopback-only" ]; then
    mode=loopback-only
    shift
fi
[ $# -ge 1 ] || { echo "usage: run-in-netns.sh [--loopback-only] program [arguments...]" >&2; exit 2; }

if [ "${COMM_IN_PRIVATE_NETNS:-}" != "1" ]; then
    command -v unshare >/dev/null 2>&1 || skip "unshare (util-linux) is not installed"
    command -v ip >/dev/null 2>&1 || skip "ip (iproute2) is not installed"
    # As root a network namespace alone will do; otherwise try a user
    # namespace that maps the caller to root inside it.
    if unshare -n true 2>/dev/null; then
        options=-n
    elif unshare -r -n true 2>/dev/null; then
        options=-rn
    else
        skip "cannot create a network namespace here (needs root, or unprivileged user namespaces)"
    fi
    if [ "$mode" = loopback-only ]; then
        exec env COMM_IN_PRIVATE_NETNS=1 unshare "$options" "$0" --loopback-only "$@"
    fi
    exec env COMM_IN_PRIVATE_NETNS=1 unshare "$options" "$0" "$@"
fi

# Never change the addresses of a namespace that has more than loopback: that
# would be the machine's own network.
if [ "$(ip -o link show | grep -cv ': lo:')" != "0" ]; then
    echo "run-in-netns.sh: not inside a fresh network namespace, nothing changed" >&2
    exit 1
fi
ip link set lo up || exit 1
if [ "$mode" = full ]; then
    ip addr add 100.100.100.100/32 dev lo || exit 1
    ip route add default dev lo || exit 1
    ip route add 255.255.255.255/32 dev lo || exit 1
fi
exec "$@"
