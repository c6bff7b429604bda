#include "CopyQuestions.h"

#include "CopyTally.h"

#include <QDateTime>
#include <QFileInfo>
#include <QSocketNotifier>

#include <cerrno>
#include <cstdio>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace {

const char *const ConflictChoices = "o overwrite, a overwrite all, s skip, n skip all, "
                                    "w newer, d different, r rename, q quit? ";
const char *const RenameQuestion = "New name in the same directory (no / and no %1), or a "
                                   "destination prefix replacing DEST (%1: the name without "
                                   "its extension); empty: back? ";

// The index of the word in words that text is, or whose first letter it is, in any case, or -1.
int Meaning(const QString &text, const QStringList &words)
{
    const QString answer = text.simplified().replace(QLatin1Char('-'), QLatin1Char(' '));
    for (int index = 0; index < words.size(); ++index) {
        for (const QString &word : words.at(index).split(QLatin1Char('|'))) {
            if (answer.compare(word, Qt::CaseInsensitive) == 0
                || (answer.size() == 1 && word.size() > 1 && answer.at(0).toLower() == word.at(0)))
                return index;
        }
    }
    return -1;
}

} // namespace

CopyQuestions::CopyQuestions()
{
    if (!CanAsk())
        return;
    m_input = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
    m_input->setEnabled(false);
    connect(m_input, &QSocketNotifier::activated, this, &CopyQuestions::ReadInput);
}

bool CopyQuestions::CanAsk()
{
    return ::isatty(STDIN_FILENO) == 1;
}

void CopyQuestions::AskConflict(const QFileInfo &source, const QFileInfo &destination,
                                const QString &collidingSource)
{
    const auto facts = [](const QFileInfo &file) {
        return QStringLiteral("%1, modified %2")
                .arg(file.isDir() ? QStringLiteral("directory") : CopyTally::Bytes(file.size()),
                     file.lastModified().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")));
    };
    m_question = collidingSource.isEmpty()
            ? QString()
            : QStringLiteral("Both land on one name: %1 was copied there in this run.\n")
                      .arg(collidingSource);
    m_question += QStringLiteral("exists:    %1 (%2)\ncopying:   %3 (%4)\n")
                          .arg(destination.filePath(), facts(destination),
                               source.absoluteFilePath(), facts(source))
            + QLatin1String(ConflictChoices);
    Ask(Open::Conflict, m_question);
}

void CopyQuestions::Cancel()
{
    m_open = Open::None;
    if (m_input)
        m_input->setEnabled(false);
}

void CopyQuestions::Ask(Open question, const QString &text)
{
    m_open = question;
    std::fputs(qPrintable(text), stderr);
    std::fflush(stderr);
    if (!m_input)
        return Answer(QString(), true);
    m_input->setEnabled(true);
    // Lines typed ahead wait in the terminal, or here when one read brought more than one.
    if (m_typed.contains('\n'))
        ReadInput();
}

void CopyQuestions::ReadInput()
{
    if (!m_typed.contains('\n')) {
        char bytes[4096];
        const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (count <= 0) {
            m_input->setEnabled(false);
            return Answer(QString(), true);
        }
        m_typed.append(bytes, int(count));
    }
    const int end = m_typed.indexOf('\n');
    if (end < 0)
        return;
    m_input->setEnabled(false);
    const QString line = QString::fromLocal8Bit(m_typed.left(end)).trimmed();
    m_typed.remove(0, end + 1);
    // With the terminal's echo off (as under a driving script) the answer
    // would otherwise be missing from the transcript.
    if (struct termios mode; ::tcgetattr(STDIN_FILENO, &mode) == 0 && !(mode.c_lflag & ECHO))
        std::fprintf(stderr, "%s\n", qPrintable(line));
    Answer(line);
}

void CopyQuestions::Answer(const QString &line, bool closed)
{
    // In the order of the enums; "w" for newer.
    static const QStringList conflictWords
            = QStringLiteral("overwrite,all|overwrite all,skip,none|skip all,w|newer,different,"
                             "rename,quit")
                      .split(QLatin1Char(','));
    static const QStringList failureWords
            = QStringLiteral("continue,all|continue all,quit").split(QLatin1Char(','));
    const Open open = std::exchange(m_open, Open::None);
    const int meaning = Meaning(closed ? QStringLiteral("quit") : line,
                                open == Open::Failure ? failureWords : conflictWords);
    if (open == Open::None)
        return;
    if (open == Open::RenameTo && !closed && line.isEmpty())
        Ask(Open::Conflict, m_question);
    else if (open == Open::RenameTo)
        emit ConflictAnswered(closed ? Quit : Rename, line);
    else if (meaning < 0)
        Ask(open,
            QStringLiteral("Please answer with one of the letters or words shown.\n") + m_question);
    else if (open == Open::Failure)
        emit FailureAnswered(FailureAnswer(meaning));
    else if (meaning == Rename)
        Ask(Open::RenameTo, QLatin1String(RenameQuestion));
    else
        emit ConflictAnswered(ConflictAnswer(meaning), QString());
}
