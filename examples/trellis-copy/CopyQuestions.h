#ifndef TRELLIS_COPY_COPYQUESTIONS_H
#define TRELLIS_COPY_COPYQUESTIONS_H

#include "TerminalPrompt.h"

#include <QObject>
#include <QString>

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
    enum ConflictAnswer { Overwrite, OverwriteAll, Skip, SkipAll, Rename, Quit, NotUnderstood };
    Q_ENUM(ConflictAnswer)

    explicit CopyQuestions(QObject *parent = nullptr);

    //! Whether questions can be asked: standard input is a terminal.
    static bool CanAsk();

    /*!
        Asks what to do about the existing \a destination of the work item
        \a source. For a rename, asks next for the new destination prefix,
        explaining it with the item's \a relativePath (below its source's
        parent) and \a baseName, for which a %1 in the prefix stands. A
        relative prefix is taken from the current directory; an empty one
        goes back to the first question.
    */
    void AskConflict(const QString &destination, const QString &source, const QString &relativePath,
                     const QString &baseName);

    //! Asks whether to go on after an entry could not be copied.
    void AskFailure();

    //! Drops the open question, if any; nothing is emitted for it.
    void Cancel();

    //! The conflict answer that \a text means, NotUnderstood if none.
    static ConflictAnswer ParseConflictAnswer(const QString &text);

signals:
    //! The answer to AskConflict(); \a renamePrefix is set for Rename only.
    void ConflictAnswered(CopyQuestions::ConflictAnswer answer, const QString &renamePrefix);
    //! The answer to AskFailure(): true to go on, false to quit.
    void FailureAnswered(bool goOn);

private:
    enum class Open { None, Conflict, RenamePrefix, Failure };

    void OnAnswered(const QString &line);
    void OnClosed();
    void AskAgain();

    TerminalPrompt m_prompt;
    Open m_open = Open::None;
    QString m_question; // the open question, asked again after a rename is taken back
    QString m_prefixQuestion;
};

#endif // TRELLIS_COPY_COPYQUESTIONS_H
