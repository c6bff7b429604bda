#ifndef TRELLIS_TREESUPPORT_H
#define TRELLIS_TREESUPPORT_H

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <sys/stat.h>

// Makes entries under root, with their missing parent directories:
// "path=text" a file holding text, "path#size" a file of size bytes,
// "path~size" a sparse file of size bytes (it takes no room), "path/" a
// directory, "path|" a FIFO, "path->target" a symbolic link, and a bare
// "path" a file holding that path. False when one cannot be made.
inline bool makeTree(const QString &root, const QStringList &entries)
{
    const auto make = [](const QString &path, const QString &kind, const QString &value) {
        if (kind == QLatin1String("/"))
            return QDir().mkpath(path);
        if (kind == QLatin1String("|"))
            return ::mkfifo(QFile::encodeName(path).constData(), 0644) == 0;
        if (kind == QLatin1String("->"))
            return QFile::link(value, path);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return false;
        if (kind == QLatin1String("~"))
            return file.resize(value.toLongLong());
        const QByteArray contents
                = kind == QLatin1String("#") ? QByteArray(value.toInt(), 'x') : value.toUtf8();
        return file.write(contents) == contents.size();
    };
    static const QRegularExpression kinds(QStringLiteral("(=|#|~|->|/$|\\|$)(.*)"));
    for (const QString &entry : entries) {
        const QRegularExpressionMatch match = kinds.match(entry);
        const QString path = root + QLatin1Char('/') + entry.left(match.capturedStart());
        if (!QDir().mkpath(QFileInfo(path).path())
            || !make(path, match.captured(1), match.hasMatch() ? match.captured(2) : entry))
            return false;
    }
    return true;
}

// The entries of tree separated by spaces.
inline bool makeTree(const QString &root, const QString &tree)
{
    return makeTree(root, tree.split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

#endif // TRELLIS_TREESUPPORT_H
