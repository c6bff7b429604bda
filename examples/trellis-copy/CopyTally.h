#ifndef TRELLIS_COPY_COPYTALLY_H
#define TRELLIS_COPY_COPYTALLY_H

#include <Trellis/TFileCopyNotifier.h>

#include <QElapsedTimer>
#include <QMap>
#include <QString>

/*!
    The counts of a trellis-copy run: entries copied, skipped, failed and
    left out, the last by the reason the copy task's rules give, and the
    summary line that reports them.
*/
class CopyTally
{
public:
    CopyTally();

    int copied = 0;
    int skipped = 0;
    int failed = 0;

    void AddLeftOut(TFileCopyNotifier::LeftOutReason reason) { ++m_leftOut[reason]; }

    //! What \a reason means, for one entry: "a hidden name", "a FIFO", ...
    static QString Describe(TFileCopyNotifier::LeftOutReason reason);

    /*!
        "Verdict: 5 copied, 1 skipped, 0 failed in 0.20 s; left out: 3
        hidden names, 1 FIFO", the last part only when something was left
        out, with a pointer to --verbose unless \a listed.
    */
    QString Summary(const QString &verdict, bool listed) const;

private:
    QMap<TFileCopyNotifier::LeftOutReason, int> m_leftOut;
    QElapsedTimer m_clock;
};

#endif // TRELLIS_COPY_COPYTALLY_H
