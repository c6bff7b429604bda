#include "SignalNotifier.h"

#include <QSocketNotifier>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

const int CaughtSignals[] = { SIGINT, SIGTERM, SIGHUP, SIGPIPE };

std::atomic<int> signalPipe { -1 }; // the write end

extern "C" void OnSignal(int signalNumber)
{
    const int savedErrno = errno;
    const char byte = char(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe.load(), &byte, 1);
    errno = savedErrno;
}

} // namespace

SignalNotifier::SignalNotifier(QObject *parent) : QObject(parent)
{
    if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("trellis-copy: cannot create the signal pipe");
    signalPipe.store(m_pipe[1]);
    connect(new QSocketNotifier(m_pipe[0], QSocketNotifier::Read, this),
            &QSocketNotifier::activated, this, &SignalNotifier::Drain);

    for (const int signalNumber : CaughtSignals) {
        struct sigaction action = {};
        action.sa_handler = OnSignal;
        action.sa_flags = SA_RESTART | (signalNumber == SIGPIPE ? 0 : SA_RESETHAND);
        sigemptyset(&action.sa_mask);
        ::sigaction(signalNumber, &action, nullptr);
    }
}

SignalNotifier::~SignalNotifier()
{
    for (const int signalNumber : CaughtSignals)
        ::signal(signalNumber, signalNumber == SIGPIPE ? SIG_IGN : SIG_DFL);
    signalPipe.store(-1);
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

void SignalNotifier::Drain()
{
    char bytes[16];
    ssize_t count;
    while ((count = ::read(m_pipe[0], bytes, sizeof bytes)) > 0) {
        for (ssize_t i = 0; i < count; ++i)
            emit Signalled(bytes[i]);
    }
}
