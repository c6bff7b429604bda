#ifndef TRELLIS_ASNOBODY_H
#define TRELLIS_ASNOBODY_H

#include "HangWatch.h"
#include "programcommand.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>
#include <QtTest>

#include <unistd.h>

// Permissions do not hold root back, so what they deny is tested as the
// ordinary user nobody.
constexpr uid_t Nobody = 65534;

// The words that run a command as the user nobody.
inline QStringList asNobody()
{
    const QString id = QString::number(Nobody);
    return { QStringLiteral("setpriv"), QStringLiteral("--reuid=") + id,
             QStringLiteral("--regid=") + id, QStringLiteral("--clear-groups") };
}

// Why a process of the user nobody cannot be started here; empty when it can.
inline QString whyNotAsNobody()
{
    if (::geteuid() != 0)
        return QStringLiteral("a process of another user needs root to start it");
    if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        return QStringLiteral("setpriv, to start a process of another user, is missing");
    return QString();
}

// Run as root, runs the current test function (and row) again in a process
// of the user nobody, checks that it ran there and passed, and returns; it
// skips, saying why, where it cannot. Run as anyone else, it does nothing.
#define RUN_AS_NOBODY_WHEN_ROOT()                                                                  \
    do {                                                                                           \
        if (::geteuid() != 0)                                                                      \
            break;                                                                                 \
        if (const QString why = whyNotAsNobody(); !why.isEmpty())                                  \
            QSKIP(qPrintable(why));                                                                \
        const QString row = QLatin1String(QTest::currentDataTag());                                \
        QStringList command = asNobody() + programCommand(QCoreApplication::applicationFilePath()) \
                << QLatin1String(QTest::currentTestFunction())                                     \
                        + (row.isEmpty() ? QString() : QLatin1Char(':') + row);                    \
        QProcess child;                                                                            \
        child.setProcessChannelMode(QProcess::MergedChannels); /* why it could not run */          \
        child.start(command.takeFirst(), command);                                                 \
        QVERIFY2(child.waitForFinished(HangBoundMsecs), "the run as user nobody did not end");     \
        const QString output = QString::fromLocal8Bit(child.readAll());                            \
        if (!output.contains(QLatin1String("Totals:")))                                            \
            QSKIP(qPrintable(QStringLiteral("cannot run as user nobody: ") + output.trimmed()));   \
        /* The test itself ran and passed, between initTestCase() and cleanupTestCase(). */        \
        QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0               \
                         && output.contains(QLatin1String("Totals: 3 passed")),                    \
                 qPrintable(output));                                                              \
        return;                                                                                    \
    } while (false)

#endif // TRELLIS_ASNOBODY_H
