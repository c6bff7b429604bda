#include "FilterDelete_p.h"

#include "Directory_p.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <fcntl.h>
#include <unistd.h>

int FilterDelete::run(const QString &nameFilter, const QString &dirPath, QStringList &deletedFiles,
                      QStringList &failedFiles)
{
    deletedFiles.clear();
    failedFiles.clear();
    const QDir dir(dirPath);
    if (!dir.exists())
        return 4;
    // Qt's wildcard syntax, matched whole and without regard to case. A
    // filter that makes no pattern (an unbalanced '[') matches nothing.
    const QRegularExpression filter(QRegularExpression::wildcardToRegularExpression(nameFilter),
                                    QRegularExpression::CaseInsensitiveOption);
    if (!filter.isValid())
        return 3;

    // A directory that cannot be listed shows no file that matches.
    const Directory directory = Directory::open(QFile::encodeName(dir.path()));
    std::vector<DirectoryEntry> entries;
    if (directory.isOpen())
        directory.list(entries);
    std::vector<QByteArray> names;
    for (const DirectoryEntry &entry : entries) {
        // Files, and links to files; the link is what goes.
        if (filter.match(QFile::decodeName(entry.name)).hasMatch()
            && directory.listedAs(entry) == Listed::File)
            names.push_back(entry.name);
    }
    if (names.empty())
        return 3;
    sortIgnoringCase(names);

    int result = 1;
    for (const QByteArray &name : names) {
        if (::unlinkat(directory.fd(), name.constData(), 0) == 0) {
            deletedFiles.append(QFile::decodeName(name));
        } else {
            failedFiles.append(QFile::decodeName(name));
            result = 2;
        }
    }
    return result;
}
