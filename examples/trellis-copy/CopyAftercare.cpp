#include "CopyAftercare.h"

#include "Console.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

CopyAftercare::CopyAftercare(bool keepLibraryAttributes, bool keepIncomplete, Console &console)
    : m_keepLibraryAttributes(keepLibraryAttributes), m_keepIncomplete(keepIncomplete),
      m_console(console)
{ }

void CopyAftercare::Finished(const QFileInfo &source, const QString &copy) const
{
    if (m_keepLibraryAttributes)
        return;
    struct stat status;
    const QByteArray copyName = QFile::encodeName(copy);
    bool done = ::stat(QFile::encodeName(source.absoluteFilePath()).constData(), &status) == 0;
    if (done) {
        const struct timespec times[2] = { status.st_atim, status.st_mtim };
        done = ::chmod(copyName.constData(), status.st_mode & 0777) == 0
                && ::utimensat(AT_FDCWD, copyName.constData(), times, 0) == 0;
    }
    if (!done)
        m_console.Error(QStringLiteral("trellis-copy: cannot give %1 the permissions and time of "
                                       "its source: %2")
                                .arg(copy, QString::fromLocal8Bit(std::strerror(errno))));
}

void CopyAftercare::Failed(const QFileInfo &source, const QString &copy) const
{
    struct stat original, written;
    if (source.isDir()
        || ::stat(QFile::encodeName(source.absoluteFilePath()).constData(), &original) != 0
        || ::lstat(QFile::encodeName(copy).constData(), &written) != 0 || !S_ISREG(written.st_mode)
        || written.st_size >= original.st_size
        || (written.st_dev == original.st_dev && written.st_ino == original.st_ino))
        return;
    if (m_keepIncomplete)
        m_console.Error(QStringLiteral("trellis-copy: kept the incomplete copy %1").arg(copy));
    else if (QFile::remove(copy))
        m_console.Error(QStringLiteral("trellis-copy: removed the incomplete copy %1").arg(copy));
    else
        m_console.Error(
                QStringLiteral("trellis-copy: cannot remove the incomplete copy %1").arg(copy));
}
