#include "ProgressLine.h"

#include <QLocale>

namespace {

constexpr qint64 LiveInterval = 100;
constexpr qint64 PlainInterval = 1000;

// text cut to at most width characters by dropping its middle, marked with "...".
QString KeepEnds(const QString &text, int width)
{
    if (text.size() <= width)
        return text;
    if (width <= 3)
        return QString();
    const int head = (width - 3) / 2;
    return text.left(head) + QLatin1String("...") + text.right(width - 3 - head);
}

QString Duration(qint64 seconds)
{
    return seconds >= 3600
            ? QStringLiteral("%1:%2:%3")
                      .arg(seconds / 3600)
                      .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'))
                      .arg(seconds % 60, 2, 10, QLatin1Char('0'))
            : QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

} // namespace

ProgressLine::ProgressLine(bool live) : m_live(live)
{
    m_sinceStart.start();
    // A log gets its first line after a second, so that a short copy adds none.
    if (!live)
        m_sinceLastLine.start();
}

bool ProgressLine::Due()
{
    if (m_sinceLastLine.isValid()
        && m_sinceLastLine.elapsed() < (m_live ? LiveInterval : PlainInterval))
        return false;
    m_sinceLastLine.start();
    return true;
}

QString ProgressLine::Bytes(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeIecFormat);
}

QString ProgressLine::Text(qint64 done, qint64 total, int copied, int skipped, int failed,
                           const QString &entry, int width) const
{
    const double seconds = qMax<qint64>(m_sinceStart.elapsed(), 1) / 1000.0;
    const double rate = done / seconds;
    const QString left = rate > 0 && done > 0
            ? Duration(qint64((total - done) / rate)) + QLatin1String(" left")
            : QStringLiteral("--:-- left");
    QString line = QStringLiteral("%1% %2/%3 %4/s %5 %6 copied")
                           .arg(total > 0 ? int(done * 100 / total) : 100, 3)
                           .arg(Bytes(done), Bytes(total), Bytes(qint64(rate)), left)
                           .arg(copied);
    // Counts that are zero would only take room from the entry.
    if (skipped > 0)
        line += QStringLiteral(", %1 skipped").arg(skipped);
    if (failed > 0)
        line += QStringLiteral(", %1 failed").arg(failed);
    line += QLatin1String("  ");
    // The last column stays free: writing into it makes some terminals wrap.
    return line + (m_live ? KeepEnds(entry, width - 1 - line.size()) : entry);
}
