#include "CopyTally.h"

#include <QLocale>
#include <QStringList>

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
    const QString minutes = QStringLiteral("%1:%2")
                                    .arg(seconds / 60 % 60)
                                    .arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return seconds < 3600 ? minutes
                          : QStringLiteral("%1:%2")
                                    .arg(seconds / 3600)
                                    .arg(minutes.rightJustified(5, QLatin1Char('0')));
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

QString CopyTally::ProgressLine(qint64 doneBytes, qint64 totalBytes, const QString &entry,
                                int width, bool fit) const
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
    line += QLatin1String("  ");
    // The last column stays free: writing into it makes some terminals wrap.
    const int room = width - 1 - line.size();
    if (!fit || entry.size() <= room)
        return line + entry;
    return room <= 3 ? line
                     : line + entry.left((room - 3) / 2) + QLatin1String("...")
                    + entry.right(room - 3 - (room - 3) / 2);
}

QString CopyTally::Summary(const QString &verdict, bool listed) const
{
    QString summary = QStringLiteral("%1: %2 copied, %3 skipped, %4 failed in %5 s")
                              .arg(verdict)
                              .arg(copied)
                              .arg(skipped)
                              .arg(failed)
                              .arg(m_clock.elapsed() / 1000.0, 0, 'f', 2);
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
