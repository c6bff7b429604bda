#include "CopyQuestions.h"

#include <QDir>

#include <utility>

namespace {

const char *const ConflictChoices
        = "o overwrite, a overwrite all, s skip, n skip all, r rename, q quit? ";
const char *const FailureChoices = "Go on with the rest? c continue, q quit? ";

// Whether text is word or its first letter, ignoring case.
bool Means(const QString &text, const char *word)
{
    const QLatin1String full(word);
    return text.compare(full, Qt::CaseInsensitive) == 0
            || (text.size() == 1 && text.at(0).toLower() == QLatin1Char(full.at(0)));
}

// A prefix as the task needs it: absolute, without a trailing '/' (but "/").
QString PrefixFromAnswer(const QString &answer)
{
    QString prefix = QDir::current().absoluteFilePath(answer);
    while (prefix.size() > 1 && prefix.endsWith(QLatin1Char('/')))
        prefix.chop(1);
    return prefix;
}

} // namespace

CopyQuestions::CopyQuestions(QObject *parent) : QObject(parent)
{
    connect(&m_prompt, &TerminalPrompt::Answered, this, &CopyQuestions::OnAnswered);
    connect(&m_prompt, &TerminalPrompt::Closed, this, &CopyQuestions::OnClosed);
}

bool CopyQuestions::CanAsk()
{
    return TerminalPrompt::IsInteractive();
}

void CopyQuestions::AskConflict(const QString &destination, const QString &source,
                                const QString &relativePath, const QString &baseName)
{
    m_question = QStringLiteral("%1 exists (copying %2).\n").arg(destination, source)
            + QLatin1String(ConflictChoices);
    m_prefixQuestion = QStringLiteral("New destination prefix: the item goes to PREFIX/%1, "
                                      "and %2 in PREFIX stands for \"%3\" (empty: back)? ")
                               .arg(relativePath, QStringLiteral("%1"), baseName);
    m_open = Open::Conflict;
    m_prompt.Ask(m_question);
}

void CopyQuestions::AskFailure()
{
    m_question = QLatin1String(FailureChoices);
    m_open = Open::Failure;
    m_prompt.Ask(m_question);
}

void CopyQuestions::Cancel()
{
    m_open = Open::None;
    m_prompt.Cancel();
}

CopyQuestions::ConflictAnswer CopyQuestions::ParseConflictAnswer(const QString &text)
{
    const QString answer = text.simplified().replace(QLatin1Char('-'), QLatin1Char(' '));
    if (Means(answer, "overwrite"))
        return Overwrite;
    if (Means(answer, "all")
        || answer.compare(QLatin1String("overwrite all"), Qt::CaseInsensitive) == 0)
        return OverwriteAll;
    if (Means(answer, "skip"))
        return Skip;
    if (Means(answer, "none")
        || answer.compare(QLatin1String("skip all"), Qt::CaseInsensitive) == 0)
        return SkipAll;
    if (Means(answer, "rename"))
        return Rename;
    if (Means(answer, "quit"))
        return Quit;
    return NotUnderstood;
}

void CopyQuestions::OnAnswered(const QString &line)
{
    const Open open = std::exchange(m_open, Open::None);
    switch (open) {
    case Open::None:
        return;
    case Open::Conflict: {
        const ConflictAnswer answer = ParseConflictAnswer(line);
        if (answer == NotUnderstood) {
            m_open = open;
            AskAgain();
        } else if (answer == Rename) {
            m_open = Open::RenamePrefix;
            m_prompt.Ask(m_prefixQuestion);
        } else {
            emit ConflictAnswered(answer, QString());
        }
        return;
    }
    case Open::RenamePrefix:
        if (line.isEmpty()) {
            m_open = Open::Conflict;
            m_prompt.Ask(m_question);
        } else {
            emit ConflictAnswered(Rename, PrefixFromAnswer(line));
        }
        return;
    case Open::Failure:
        if (Means(line, "continue")) {
            emit FailureAnswered(true);
        } else if (Means(line, "quit")) {
            emit FailureAnswered(false);
        } else {
            m_open = open;
            AskAgain();
        }
        return;
    }
}

void CopyQuestions::OnClosed()
{
    const Open open = std::exchange(m_open, Open::None);
    if (open == Open::Failure)
        emit FailureAnswered(false);
    else if (open != Open::None)
        emit ConflictAnswered(Quit, QString());
}

void CopyQuestions::AskAgain()
{
    m_prompt.Ask(QStringLiteral("Please answer with one of the letters or words shown.\n")
                 + m_question);
}
