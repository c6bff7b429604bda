#include "InterruptNotifier.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

// The write end of the pipe, read by the handler.
std::atomic<int> signalPipe { -1 };

extern "C" void OnInterrupt(int)
{
    const int savedErrno = errno;
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe.load(), &byte, 1);
    errno = savedErrno;
}

} // namespace

InterruptNotifier::InterruptNotifier(QObject *parent) : QObject(parent)
{
    if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        qFatal("trellis-copy: cannot create the signal pipe");
    signalPipe.store(m_pipe[1]);
    m_notifier = new QSocketNotifier(m_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &InterruptNotifier::Drain);

    struct sigaction action = {};
    action.sa_handler = OnInterrupt;
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
}

InterruptNotifier::~InterruptNotifier()
{
    ::signal(SIGINT, SIG_DFL);
    signalPipe.store(-1);
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

void InterruptNotifier::Drain()
{
    char bytes[16];
    while (::read(m_pipe[0], bytes, sizeof bytes) > 0) { }
    emit Interrupted();
}
