// comm_soak: the library under load on every link at once, for minutes, with
// everything that can go wrong on a link going wrong now and then. See
// scripts/soak.sh.
#include <QCoreApplication>

#include <cstdio>
#include <random>

#include "Options.h"
#include "Soak.h"

int main(int argc, char **argv)
{
    // The network and serial transports need the application object.
    QCoreApplication app(argc, argv);
    soak::Options options;
    bool help = false;
    QString error;
    if (!soak::parseOptions(app.arguments().mid(1), &options, &help, &error)) {
        std::fprintf(stderr, "comm_soak: %s\n%s", qPrintable(error), qPrintable(soak::usage()));
        return 2;
    }
    if (help) {
        std::printf("%s", qPrintable(soak::usage()));
        return 0;
    }
    if (!options.seedGiven)
        options.seed = std::random_device()() | quint64(std::random_device()()) << 32;
    return soak::runSoak(options);
}
