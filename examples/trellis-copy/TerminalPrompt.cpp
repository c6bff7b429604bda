#include "TerminalPrompt.h"

#include <QString>

#include <cerrno>
#include <cstdio>
#include <termios.h>
#include <unistd.h>

TerminalPrompt::TerminalPrompt(QObject *parent) : QObject(parent)
{
    if (!IsInteractive())
        return;
    m_notifier = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
    m_notifier->setEnabled(false);
    connect(m_notifier, &QSocketNotifier::activated, this, &TerminalPrompt::ReadInput);
}

bool TerminalPrompt::IsInteractive()
{
    return ::isatty(STDIN_FILENO) == 1;
}

void TerminalPrompt::Ask(const QString &question)
{
    std::fputs(qPrintable(question), stderr);
    std::fflush(stderr);
    if (!m_notifier) {
        emit Closed();
        return;
    }
    // Lines typed ahead wait in the terminal, or here when one read brought
    // more than one.
    if (!DeliverLine())
        m_notifier->setEnabled(true);
}

void TerminalPrompt::Cancel()
{
    if (m_notifier)
        m_notifier->setEnabled(false);
}

void TerminalPrompt::ReadInput()
{
    char bytes[4096];
    const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (count <= 0) {
        m_notifier->setEnabled(false);
        emit Closed();
        return;
    }
    m_buffer.append(bytes, int(count));
    DeliverLine();
}

bool TerminalPrompt::DeliverLine()
{
    const int end = m_buffer.indexOf('\n');
    if (end < 0)
        return false;
    const QString line = QString::fromLocal8Bit(m_buffer.left(end)).trimmed();
    m_buffer.remove(0, end + 1);
    m_notifier->setEnabled(false);
    // With the terminal's echo off (as under a driving script) the answer
    // would otherwise be missing from the transcript.
    struct termios mode;
    if (::tcgetattr(STDIN_FILENO, &mode) == 0 && !(mode.c_lflag & ECHO))
        std::fprintf(stderr, "%s\n", qPrintable(line));
    emit Answered(line);
    return true;
}
