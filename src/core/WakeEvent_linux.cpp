// The wake-up on Linux: an event file descriptor, whose counter raises add to
// and a read clears, watched by a QSocketNotifier.
#include "WakeEvent.h"

#include <QSocketNotifier>

#include <cstdint>

#include <sys/eventfd.h>
#include <unistd.h>

namespace comm {

WakeEvent::WakeEvent()
    : m_handle(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
}

WakeEvent::~WakeEvent()
{
    if (m_handle >= 0)
        ::close(static_cast<int>(m_handle));
}

bool WakeEvent::isValid() const
{
    return m_handle >= 0;
}

void WakeEvent::watch(QObject *context, std::function<void()> onRaised)
{
    auto *notifier = new QSocketNotifier(m_handle, QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [this, onRaised = std::move(onRaised)] {
        clear();
        onRaised();
    });
    m_watch = notifier;
}

void WakeEvent::unwatch()
{
    delete m_watch;
    m_watch = nullptr;
}

void WakeEvent::raise()
{
    const std::uint64_t one = 1;
    // Never full in practice (the counter is read back to zero on every
    // wake-up); a failed write leaves an earlier wake-up pending anyway.
    const ssize_t written = ::write(static_cast<int>(m_handle), &one, sizeof(one));
    Q_UNUSED(written);
}

void WakeEvent::clear()
{
    std::uint64_t count = 0;
    const ssize_t read = ::read(static_cast<int>(m_handle), &count, sizeof(count));
    Q_UNUSED(read);
}

} // namespace comm
