#ifndef TRELLIS_COPY_CONSOLE_H
#define TRELLIS_COPY_CONSOLE_H

#include <QObject>
#include <QString>

/*!
    Standard output and error of trellis-copy: a status line kept on
    standard output, and whole lines written to either stream.

    On a terminal the status line is redrawn in place (carriage return and
    clear to the end of the line) and erased before any other output;
    otherwise each status line is a plain line. A write that fails (a
    closed pipe, a full disk) is announced once per stream, through
    WriteFailed(), and that stream is written no more.
*/
class Console : public QObject
{
    Q_OBJECT

public:
    explicit Console(QObject *parent = nullptr);

    //! Whether standard output is a terminal, where the status line is redrawn in place.
    bool isLive() const { return m_live; }
    //! The terminal's width in columns, 80 when it cannot be told.
    static int Width();

    //! Shows \a line as the status line.
    void ShowStatus(const QString &line);
    //! Erases the status line, so that other output starts on a clean line.
    void ClearStatus();
    //! Writes \a text and a line end to standard output.
    void Print(const QString &text);
    //! Writes \a text and a line end to standard error, or standard output if that failed.
    void Error(const QString &text);

signals:
    //! A write to \a stream ("standard output" or "standard error") failed with \a error.
    void WriteFailed(const QString &stream, int error);

private:
    bool Write(int fd, const QByteArray &bytes);

    const bool m_live;
    bool m_statusShown = false;
    bool m_broken[3] = {};
};

#endif // TRELLIS_COPY_CONSOLE_H
