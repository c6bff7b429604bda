#ifndef TRELLIS_COPY_COPYTALLY_H
#define TRELLIS_COPY_COPYTALLY_H

#include <Trellis/TFileCopyNotifier.h>

#include <QElapsedTimer>
#include <QMap>

//! The counts of a run, from its start, and the progress line and summary that report them.
class CopyTally
{
public:
    CopyTally();

    int copied = 0, skipped = 0, failed = 0;
    void AddLeftOut(TFileCopyNotifier::LeftOutReason reason) { ++m_leftOut[reason]; }

    //! "a hidden name", "a FIFO", ...
    static QString Describe(TFileCopyNotifier::LeftOutReason reason);
    //! Bytes in human units, such as "1.5 GiB".
    static QString Bytes(qint64 bytes);

    //! The figures of the progress line, to be followed by the current entry.
    QString Progress(qint64 doneBytes, qint64 totalBytes) const;
    //! With a pointer to --verbose for what was left out, unless \a listed.
    QString Summary(const QString &verdict, bool listed) const;

private:
    QMap<TFileCopyNotifier::LeftOutReason, int> m_leftOut;
    QElapsedTimer m_clock;
};

#endif // TRELLIS_COPY_COPYTALLY_H
