#ifndef TRELLIS_COPY_CONSOLE_H
#define TRELLIS_COPY_CONSOLE_H

#include <QElapsedTimer>
#include <QObject>

/*!
    Lines to standard output and error, and a status line, redrawn in place on a
    terminal. A failed write is announced once per stream, which is then left.
*/
class Console : public QObject
{
    Q_OBJECT

public:
    Console();

    //! Whether a status line is due now; if so, the next is due an interval later.
    bool StatusDue();
    //! On a terminal, \a entry is shortened in the middle to fit the width.
    void ShowStatus(const QString &figures, const QString &entry);
    void ClearStatus();
    void Print(const QString &text);
    //! Writes to standard error, or to standard output if that failed.
    void Error(const QString &text);

signals:
    //! \a stream is "standard output" or "standard error".
    void WriteFailed(const QString &stream, int error);

private:
    bool Write(int fd, const QByteArray &bytes);

    const bool m_live;
    bool m_statusShown = false;
    bool m_broken[3] = {};
    QElapsedTimer m_sinceStatus;
};

#endif // TRELLIS_COPY_CONSOLE_H
