#ifndef TRELLIS_COPY_TERMINALPROMPT_H
#define TRELLIS_COPY_TERMINALPROMPT_H

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>

/*!
    Asks questions on standard error and reads the answers, one line each,
    from standard input without blocking the event loop: a QSocketNotifier
    watches standard input while a question is open, so the copy task's
    signals keep arriving. Meant for a terminal in its usual line mode, where
    the user edits the line and ends it with Enter.
*/
class TerminalPrompt : public QObject
{
    Q_OBJECT

public:
    explicit TerminalPrompt(QObject *parent = nullptr);

    //! Whether standard input is a terminal, so that there is someone to ask.
    static bool IsInteractive();

    /*!
        Writes \a question to standard error and waits for a line. Emits
        Answered() with the line, without its end and surrounding blanks,
        or Closed() at the end of input. Replaces an open question.
    */
    void Ask(const QString &question);

    //! Stops waiting for the open question, if any; nothing is emitted.
    void Cancel();

signals:
    void Answered(const QString &line);
    void Closed();

private:
    void ReadInput();
    bool DeliverLine();

    QSocketNotifier *m_notifier = nullptr;
    QByteArray m_buffer;
};

#endif // TRELLIS_COPY_TERMINALPROMPT_H
