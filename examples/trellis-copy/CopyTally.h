#ifndef TRELLIS_COPY_COPYTALLY_H
#define TRELLIS_COPY_COPYTALLY_H

#include <Trellis/TFileCopyNotifier.h>

#include <QElapsedTimer>
#include <QMap>

/*!
    The figures of a run, from its start: entries copied, skipped, failed
    and left out, bytes in all, and the two lines that report them, the
    progress line and the summary.
*/
class CopyTally
{
public:
    CopyTally();

    int copied = 0;
    int skipped = 0;
    int failed = 0;
    qint64 totalBytes = 0;

    void AddLeftOut(TFileCopyNotifier::LeftOutReason reason) { ++m_leftOut[reason]; }
    //! "a hidden name", "a FIFO", ...
    static QString Describe(TFileCopyNotifier::LeftOutReason reason);
    //! Bytes in human units, such as "1.5 GiB".
    static QString Bytes(qint64 bytes);

    /*!
        Bytes done and in all, percentage, rate, time left, the counts and
        \a entry, shortened in the middle to fit \a width when \a fit.
    */
    QString ProgressLine(qint64 doneBytes, const QString &entry, int width, bool fit) const;
    /*!
        "Done: 5 copied, 1 skipped, 0 failed in 0.20 s; left out: 3 hidden
        names", with a pointer to --verbose unless \a listed.
    */
    QString Summary(const QString &verdict, bool listed) const;

private:
    QMap<TFileCopyNotifier::LeftOutReason, int> m_leftOut;
    QElapsedTimer m_clock;
};

#endif // TRELLIS_COPY_COPYTALLY_H
