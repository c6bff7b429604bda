#include "Console.h"

#include <cerrno>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace {

const char EraseLine[] = "\r\033[K";

} // namespace

Console::Console() : m_live(::isatty(STDOUT_FILENO) == 1)
{
    // A log gets its first line after a second, so that a short copy adds none.
    if (!m_live)
        m_sinceStatus.start();
}

bool Console::StatusDue()
{
    if (m_sinceStatus.isValid() && m_sinceStatus.elapsed() < (m_live ? 100 : 1000))
        return false;
    m_sinceStatus.start();
    return true;
}

void Console::ShowStatus(const QString &figures, const QString &entry)
{
    struct winsize size = {};
    if (!m_live || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        size.ws_col = 80;
    // The last column stays free: writing into it makes some terminals wrap.
    const int room = size.ws_col - 1 - figures.size();
    const QString line = !m_live || entry.size() <= room ? figures + entry
            : room <= 3                                  ? figures
                        : figures + entry.left((room - 3) / 2) + QLatin1String("...")
                    + entry.right(room - 3 - (room - 3) / 2);
    if (m_live)
        m_statusShown = Write(STDOUT_FILENO, EraseLine + line.toLocal8Bit());
    else
        Print(line);
}

void Console::ClearStatus()
{
    if (std::exchange(m_statusShown, false))
        Write(STDOUT_FILENO, EraseLine);
}

void Console::Print(const QString &text)
{
    ClearStatus();
    Write(STDOUT_FILENO, text.toLocal8Bit() + '\n');
}

void Console::Error(const QString &text)
{
    ClearStatus();
    if (!Write(STDERR_FILENO, text.toLocal8Bit() + '\n'))
        Write(STDOUT_FILENO, text.toLocal8Bit() + '\n');
}

bool Console::Write(int fd, const QByteArray &bytes)
{
    for (qsizetype done = 0; done < bytes.size() && !m_broken[fd];) {
        const ssize_t written = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (written > 0) {
            done += written;
        } else if (written == 0 || errno != EINTR) {
            m_broken[fd] = true;
            emit WriteFailed(fd == STDOUT_FILENO ? QStringLiteral("standard output")
                                                 : QStringLiteral("standard error"),
                             written < 0 ? errno : EIO);
        }
    }
    return !m_broken[fd];
}
