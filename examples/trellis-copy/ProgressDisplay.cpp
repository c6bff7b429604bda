#include "ProgressDisplay.h"

#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr qint64 LiveInterval = 100;
constexpr qint64 PlainInterval = 1000;

int TerminalWidth()
{
    struct winsize size = {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

// text cut from the left to at most width characters, marked with "...".
QString KeepEnd(const QString &text, int width)
{
    if (text.size() <= width)
        return text;
    if (width <= 3)
        return QString();
    return QLatin1String("...") + text.right(width - 3);
}

void Write(std::FILE *stream, const QString &text)
{
    std::fputs(qPrintable(text), stream);
    std::fflush(stream);
}

} // namespace

ProgressDisplay::ProgressDisplay() : m_live(::isatty(STDOUT_FILENO) == 1) { }

void ProgressDisplay::Show(const QString &label, int percent, int copied, int skipped,
                           const QString &entry)
{
    if (m_sinceLastLine.isValid()
        && m_sinceLastLine.elapsed() < (m_live ? LiveInterval : PlainInterval))
        return;
    m_sinceLastLine.start();
    QString line = QStringLiteral("%1%2% %3 copied, %4 skipped ")
                           .arg(label.isEmpty() ? QString() : label + QLatin1Char(' '))
                           .arg(percent, 3)
                           .arg(copied)
                           .arg(skipped);
    if (!m_live) {
        Write(stdout, line + entry + QLatin1Char('\n'));
        return;
    }
    // The last column stays free: writing into it makes some terminals wrap.
    line += KeepEnd(entry, TerminalWidth() - 1 - line.size());
    Write(stdout, QLatin1String("\r\033[K") + line);
    m_lineShown = true;
}

void ProgressDisplay::Clear()
{
    if (!m_lineShown)
        return;
    Write(stdout, QStringLiteral("\r\033[K"));
    m_lineShown = false;
    // The line comes back at once when the copy goes on.
    m_sinceLastLine.invalidate();
}

void ProgressDisplay::Message(const QString &text)
{
    Clear();
    Write(stderr, text + QLatin1Char('\n'));
}

void ProgressDisplay::Print(const QString &text)
{
    Clear();
    Write(stdout, text + QLatin1Char('\n'));
}
