#include "SignalNotifier.h"

#include <QSocketNotifier>

#include <cerrno>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace {

int signalPipe[2] = { -1, -1 };

extern "C" void OnSignal(int signalNumber)
{
    const int savedErrno = errno;
    const char byte = char(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
    errno = savedErrno;
}

} // namespace

SignalNotifier::SignalNotifier(QObject *parent) : QObject(parent)
{
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("trellis-copy: cannot create the signal pipe");
    connect(new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this),
            &QSocketNotifier::activated, this, [this] {
                char number;
                while (::read(signalPipe[0], &number, 1) == 1)
                    emit Signalled(number);
            });
    for (const int signalNumber : { SIGINT, SIGTERM, SIGHUP, SIGPIPE }) {
        struct sigaction action = {};
        action.sa_handler = OnSignal;
        action.sa_flags = SA_RESTART | (signalNumber == SIGPIPE ? 0 : SA_RESETHAND);
        sigemptyset(&action.sa_mask);
        ::sigaction(signalNumber, &action, nullptr);
    }
}
