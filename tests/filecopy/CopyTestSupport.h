#ifndef TRELLIS_COPYTESTSUPPORT_H
#define TRELLIS_COPYTESTSUPPORT_H

#include "HangWatch.h"
#include "TreeSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QtTest>

// Checks the entries of checks, separated by spaces, under root: "path=text" a
// file holding text, "path=-" nothing, "path=/a,b" a directory holding
// exactly a and b (hidden or not), and "left==right" two trees that diff -r
// finds equal.
inline void CheckFiles(const QString &root, const QString &checks)
{
    for (const QString &check : checks.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QString path = root + QLatin1Char('/') + check.section(QLatin1Char('='), 0, 0);
        if (check.contains(QLatin1String("=="))) {
            const QString other = root + QLatin1Char('/') + check.section(QLatin1String("=="), 1);
            QCOMPARE(QProcess::execute(QStringLiteral("diff"),
                                       { QStringLiteral("-r"), path, other }),
                     0);
        } else if (QFileInfo(path).isDir()) {
            const auto all = QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot;
            QCOMPARE(QLatin1Char('/') + QDir(path).entryList(all).join(QLatin1Char(',')),
                     check.section(QLatin1Char('='), 1));
        } else {
            QFile file(path);
            QCOMPARE(file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll())
                                                    : QStringLiteral("-"),
                     check.section(QLatin1Char('='), 1));
        }
    }
}

#endif // TRELLIS_COPYTESTSUPPORT_H
