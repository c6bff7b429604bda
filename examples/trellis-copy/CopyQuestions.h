#ifndef TRELLIS_COPY_COPYQUESTIONS_H
#define TRELLIS_COPY_COPYQUESTIONS_H

#include <QObject>

class QFileInfo;
class QSocketNotifier;

/*!
    Questions on standard error, answered a line at a time on standard input,
    a terminal, without blocking the event loop. The end of input answers quit.
*/
class CopyQuestions : public QObject
{
    Q_OBJECT

public:
    enum ConflictAnswer { Overwrite, OverwriteAll, Skip, SkipAll, Newer, Different, Rename, Quit };
    enum FailureAnswer { Continue, ContinueAll, QuitAfterFailure };

    CopyQuestions();

    //! Whether standard input is a terminal, so that there is someone to ask.
    static bool CanAsk();
    /*!
        What to do about \a source, whose \a destination exists, maybe as the
        copy of \a collidingSource; a rename asks for the name next.
    */
    void AskConflict(const QFileInfo &source, const QFileInfo &destination,
                     const QString &collidingSource);
    void AskFailure() { Ask(Open::Failure, m_question = QLatin1String(FailureChoices)); }
    bool isOpen() const { return m_open != Open::None; }
    //! Drops the open question, if any; nothing is emitted for it.
    void Cancel();

signals:
    //! \a renameTo is the text given for Rename only.
    void ConflictAnswered(CopyQuestions::ConflictAnswer answer, const QString &renameTo);
    void FailureAnswered(CopyQuestions::FailureAnswer answer);

private:
    enum class Open { None, Conflict, RenameTo, Failure };
    static constexpr const char *FailureChoices
            = "Go on with the rest? c continue, a continue all, q quit? ";

    void Ask(Open question, const QString &text);
    void ReadInput();
    //! Answers the open question with \a line, or with quit when input is \a closed.
    void Answer(const QString &line, bool closed = false);

    QSocketNotifier *m_input = nullptr; // enabled while a question is open
    QByteArray m_typed; // read, not yet answered
    Open m_open = Open::None;
    QString m_question; // asked again after a rename is taken back
};

#endif // TRELLIS_COPY_COPYQUESTIONS_H
