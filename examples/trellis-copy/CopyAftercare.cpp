#include "CopyAftercare.h"

#include "Console.h"

#include <QFile>
#include <QFileInfo>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

CopyAftercare::CopyAftercare(bool keepLibraryAttributes, bool keepIncomplete, Console &console)
    : m_keepLibraryAttributes(keepLibraryAttributes), m_keepIncomplete(keepIncomplete),
      m_console(console)
{ }

void CopyAftercare::Finished(const QFileInfo &source, const QString &copy) const
{
    struct stat status;
    const QByteArray name = QFile::encodeName(copy);
    if (m_keepLibraryAttributes
        || (::stat(QFile::encodeName(source.absoluteFilePath()).constData(), &status) == 0
            && ::chmod(name.constData(), status.st_mode & 0777) == 0
            && ::utimensat(AT_FDCWD, name.constData(),
                           std::array<timespec, 2> { status.st_atim, status.st_mtim }.data(), 0)
                    == 0))
        return;
    m_console.Error(QStringLiteral("trellis-copy: cannot give %1 the permissions and time of its "
                                   "source: %2")
                            .arg(copy, qt_error_string(errno)));
}

void CopyAftercare::Failed(const QFileInfo &source, const QString &copy) const
{
    // A copy as long as its source is complete, or the source itself.
    const QFileInfo written(copy);
    if (source.isDir() || !written.isFile() || written.isSymLink()
        || written.size() >= QFileInfo(source.absoluteFilePath()).size())
        return;
    const char *const done = m_keepIncomplete ? "kept"
            : QFile::remove(copy)             ? "removed"
                                              : "cannot remove";
    m_console.Error(QStringLiteral("trellis-copy: %1 the incomplete copy %2")
                            .arg(QLatin1String(done), copy));
}
