// trellis-copy: copies files and directory trees with the Trellis copy task; see --help.

#include "CommandLine.h"
#include "CopyController.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

int signalPipe[2] = { -1, -1 };

extern "C" void OnSignal(int signalNumber)
{
    const int savedErrno = errno;
    // A second SIGINT, SIGTERM or SIGHUP ends the process at once.
    if (signalNumber != SIGPIPE)
        ::signal(signalNumber, SIG_DFL);
    const char byte = char(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
    errno = savedErrno;
}

// Hands SIGINT, SIGTERM, SIGHUP and SIGPIPE to the controller through the
// event loop: the handler only writes the number into a pipe. SIGPIPE stays
// caught, so that a write to a closed pipe fails with EPIPE.
void HandSignalsTo(CopyController &controller)
{
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("trellis-copy: cannot create the signal pipe");
    QObject::connect(new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &controller),
                     &QSocketNotifier::activated, &controller, [&controller] {
                         char number;
                         while (::read(signalPipe[0], &number, 1) == 1)
                             controller.Stop(
                                     number == SIGINT ? 130 : 1,
                                     number == SIGINT ? QStringLiteral("Interrupted")
                                                      : QStringLiteral("Stopped by ")
                                                     + QString::fromLocal8Bit(::strsignal(number)));
                     });
    for (const int signalNumber : { SIGINT, SIGTERM, SIGHUP, SIGPIPE })
        ::signal(signalNumber, OnSignal);
}

} // namespace

int main(int argc, char *argv[])
{
    // /dev/null where standard input, output or error is closed, so that no
    // file the program opens takes its place.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1 && ::open("/dev/null", O_RDWR) != fd)
            return 1;
    }
    QCoreApplication application(argc, argv);

    const CommandLine request(QCoreApplication::arguments());
    if (request.outcome == CommandLine::UsageError) {
        std::fprintf(stderr, "trellis-copy: %s\nTry 'trellis-copy --help' for more.\n",
                     qPrintable(request.text));
        return 2;
    }
    if (request.outcome == CommandLine::ShowText) {
        std::fputs(qPrintable(request.text), stdout);
        return std::fflush(stdout) == 0 ? 0 : 1;
    }

    CopyController controller(request);
    HandSignalsTo(controller);
    QObject::connect(&controller, &CopyController::Finished, &QCoreApplication::exit);
    QMetaObject::invokeMethod(&controller, &CopyController::Start, Qt::QueuedConnection);
    const int exitCode = QCoreApplication::exec();
    // A walk still planning writes nothing and cannot be interrupted: leave it.
    if (controller.isPlanning())
        ::_exit(exitCode);
    return exitCode;
}
