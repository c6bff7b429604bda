#ifndef TRELLIS_COPY_PROGRESSLINE_H
#define TRELLIS_COPY_PROGRESSLINE_H

#include <QElapsedTimer>
#include <QString>

/*!
    The text of trellis-copy's progress line: bytes done and in all, the
    percentage of the whole run, the rate, the time left, the entries
    copied (skipped and failed when there are any), and the current entry, shortened in the
    middle to fit. It also keeps the pace: a line is due at most ten times a
    second on a terminal, once a second otherwise.
*/
class ProgressLine
{
public:
    //! Starts the clock; \a live for a terminal.
    explicit ProgressLine(bool live);

    //! Whether a new line is due; if so, the next one is due only after the interval.
    bool Due();

    //! Bytes in human units, such as "1.5 GiB".
    static QString Bytes(qint64 bytes);

    /*!
        The line for \a done of \a total bytes, the entry counts and the
        current \a entry, at most \a width characters wide.
    */
    QString Text(qint64 done, qint64 total, int copied, int skipped, int failed,
                 const QString &entry, int width) const;

private:
    const bool m_live;
    QElapsedTimer m_sinceStart;
    QElapsedTimer m_sinceLastLine;
};

#endif // TRELLIS_COPY_PROGRESSLINE_H
