// trellis-copy: copies files and directory trees with the Trellis copy task
// running in a worker thread; see --help.

#include "CommandLine.h"
#include "CopyController.h"
#include "InterruptNotifier.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("trellis-copy"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TRELLIS_VERSION_STRING));

    const CommandLine request(QCoreApplication::arguments());
    switch (request.outcome()) {
    case CommandLine::ShowHelp:
        std::fputs(qPrintable(request.helpText()), stdout);
        return 0;
    case CommandLine::ShowVersion:
        std::printf("trellis-copy %s\n", TRELLIS_VERSION_STRING);
        return 0;
    case CommandLine::UsageError:
        std::fprintf(stderr, "trellis-copy: %s\nTry 'trellis-copy --help' for more.\n",
                     qPrintable(request.error()));
        return 2;
    case CommandLine::Copy:
        break;
    }

    CopyController controller(request);
    InterruptNotifier interrupts;
    QObject::connect(&interrupts, &InterruptNotifier::Interrupted, &controller,
                     &CopyController::Interrupt);
    QObject::connect(&controller, &CopyController::Finished, &application,
                     [](int exitCode) { QCoreApplication::exit(exitCode); });
    QMetaObject::invokeMethod(&controller, &CopyController::Start, Qt::QueuedConnection);
    return QCoreApplication::exec();
}
