#include "CopyTally.h"

#include <QLocale>
#include <QStringList>
#include <QTime>

namespace {

// The singular and plural of what is left out for each reason, in the order of the enum.
const char *const Kinds[][2] = { { "hidden name", "hidden names" },
                                 { "FIFO", "FIFOs" },
                                 { "socket", "sockets" },
                                 { "device", "devices" },
                                 { "dangling link", "dangling links" },
                                 { "link into the tree", "links into the tree" } };

QString Duration(qint64 seconds)
{
    return seconds >= 86400 ? QStringLiteral("over a day")
                            : QTime(0, 0)
                                      .addSecs(int(seconds))
                                      .toString(seconds < 3600 ? QStringLiteral("m:ss")
                                                               : QStringLiteral("h:mm:ss"));
}

} // namespace

CopyTally::CopyTally()
{
    m_clock.start();
}

QString CopyTally::Describe(TFileCopyNotifier::LeftOutReason reason)
{
    return QLatin1String("a ") + QLatin1String(Kinds[reason][0]);
}

QString CopyTally::Bytes(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeIecFormat);
}

QString CopyTally::Progress(qint64 doneBytes, qint64 totalBytes) const
{
    const double rate = doneBytes / (qMax<qint64>(m_clock.elapsed(), 1) / 1000.0);
    QString line = QStringLiteral("%1% %2/%3 %4/s %5 left %6 copied")
                           .arg(totalBytes > 0 ? int(doneBytes * 100 / totalBytes) : 100, 3)
                           .arg(Bytes(doneBytes), Bytes(totalBytes), Bytes(qint64(rate)),
                                rate > 0 ? Duration(qint64((totalBytes - doneBytes) / rate))
                                         : QStringLiteral("--:--"))
                           .arg(copied);
    // Counts that are zero would only take room from the entry.
    if (skipped > 0)
        line += QStringLiteral(", %1 skipped").arg(skipped);
    if (failed > 0)
        line += QStringLiteral(", %1 failed").arg(failed);
    return line + QLatin1String("  ");
}

QString CopyTally::Summary(const QString &verdict, bool listed) const
{
    QString summary = QStringLiteral("%1: %2 copied, %3 skipped, %4 failed in %5 s")
                              .arg(verdict, QString::number(copied), QString::number(skipped),
                                   QString::number(failed),
                                   QString::number(m_clock.elapsed() / 1000.0, 'f', 2));
    if (m_leftOut.isEmpty())
        return summary;
    QStringList kinds;
    for (auto count = m_leftOut.cbegin(); count != m_leftOut.cend(); ++count)
        kinds.append(QStringLiteral("%1 %2")
                             .arg(count.value())
                             .arg(QLatin1String(Kinds[count.key()][count.value() == 1 ? 0 : 1])));
    summary += QLatin1String("; left out: ") + kinds.join(QStringLiteral(", "));
    return listed ? summary : summary + QLatin1String("; --verbose lists them");
}
