#include "CopyTally.h"

#include <QStringList>

namespace {

// The singular and plural of what is left out for each reason, in the order of the enum.
const char *const Kinds[][2] = { { "hidden name", "hidden names" },
                                 { "FIFO", "FIFOs" },
                                 { "socket", "sockets" },
                                 { "device", "devices" },
                                 { "dangling link", "dangling links" },
                                 { "link into the tree", "links into the tree" } };

} // namespace

CopyTally::CopyTally()
{
    m_clock.start();
}

QString CopyTally::Describe(TFileCopyNotifier::LeftOutReason reason)
{
    return QLatin1String("a ") + QLatin1String(Kinds[reason][0]);
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
