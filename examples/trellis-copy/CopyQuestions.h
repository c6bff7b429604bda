#ifndef TRELLIS_COPY_COPYQUESTIONS_H
#define TRELLIS_COPY_COPYQUESTIONS_H

#include "TerminalPrompt.h"

#include <QObject>
#include <QString>

class QFileInfo;

/*!
    The questions that trellis-copy asks its user, and the answers it
    understands: a word or its first letter, in any case.

    Each question is answered through one signal once a valid answer has
    been read; an answer that is not understood repeats the question. The
    end of input answers quit.
*/
class CopyQuestions : public QObject
{
    Q_OBJECT

public:
    enum ConflictAnswer { Overwrite, OverwriteAll, Skip, SkipAll, Newer, Different, Rename, Quit };
    Q_ENUM(ConflictAnswer)
    enum FailureAnswer { Continue, ContinueAll, QuitAfterFailure };
    Q_ENUM(FailureAnswer)

    explicit CopyQuestions(QObject *parent = nullptr);

    //! Whether questions can be asked: standard input is a terminal.
    static bool CanAsk();

    //! "size, modified date and time" of \a file, for questions and listings.
    static QString Facts(const QFileInfo &file);

    /*!
        Asks what to do about a conflict that \a situation describes (ending
        with a line end). For a rename, asks next for the new name or
        destination prefix; an empty answer goes back to the first question.
    */
    void AskConflict(const QString &situation);

    //! Asks whether to go on after an entry could not be copied.
    void AskFailure();

    //! Drops the open question, if any; nothing is emitted for it.
    void Cancel();

signals:
    //! The answer to AskConflict(); \a renameTo is the text given for Rename only.
    void ConflictAnswered(CopyQuestions::ConflictAnswer answer, const QString &renameTo);
    void FailureAnswered(CopyQuestions::FailureAnswer answer);

private:
    enum class Open { None, Conflict, RenameTo, Failure };

    void OnAnswered(const QString &line);
    void OnClosed();
    void Ask(Open question, const QString &text);

    TerminalPrompt m_prompt;
    Open m_open = Open::None;
    QString m_question; // the open question, asked again after a rename is taken back
};

#endif // TRELLIS_COPY_COPYQUESTIONS_H
