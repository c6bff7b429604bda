// trellis-copy: copies files and directory trees with the Trellis copy task
// running in a worker thread; see --help.

#include "CommandLine.h"
#include "CopyController.h"
#include "SignalNotifier.h"

#include <QCoreApplication>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char *argv[])
{
    // /dev/null where standard input, output or error is closed, so that no
    // file the program opens takes its place.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1 && ::open("/dev/null", O_RDWR) != fd)
            return 1;
    }
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("trellis-copy"));

    const CommandLine request(QCoreApplication::arguments());
    if (request.outcome() == CommandLine::UsageError) {
        std::fprintf(stderr, "trellis-copy: %s\nTry 'trellis-copy --help' for more.\n",
                     qPrintable(request.error()));
        return 2;
    }
    if (request.outcome() != CommandLine::Copy) {
        std::fputs(request.outcome() == CommandLine::ShowHelp
                           ? qPrintable(request.helpText())
                           : "trellis-copy " TRELLIS_VERSION_STRING "\n",
                   stdout);
        return std::fflush(stdout) == 0 ? 0 : 1;
    }

    SignalNotifier notifier;
    CopyController controller(request);
    QObject::connect(&notifier, &SignalNotifier::Signalled, &controller, &CopyController::OnSignal);
    QObject::connect(&controller, &CopyController::Finished, &application,
                     [](int exitCode) { QCoreApplication::exit(exitCode); });
    QMetaObject::invokeMethod(&controller, &CopyController::Start, Qt::QueuedConnection);
    const int exitCode = QCoreApplication::exec();
    // A walk still planning writes nothing and cannot be interrupted: leave it.
    if (controller.isPlanning())
        ::_exit(exitCode);
    return exitCode;
}
