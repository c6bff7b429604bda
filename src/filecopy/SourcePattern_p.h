//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_SOURCEPATTERN_P_H
#define TRELLIS_SOURCEPATTERN_P_H

#include "EntryCollector_p.h"

#include <QRegExp>
#include <QString>

// The source prefix of a copy batch: a regular expression anchored with "^".
// Most prefixes are a path escaped with QRegExp::escape(), a plain text in
// disguise: those are matched as text, at a small part of the cost of
// QRegExp, which the copy task would otherwise pay several times a file.
class SourcePattern
{
public:
    explicit SourcePattern(const QRegExp &pattern);

    // The pattern of a source prefix as the task takes it: "^" and the
    // prefix, a case-sensitive regular expression.
    static SourcePattern forPrefix(const QString &srcPrefix);

    const QRegExp &regExp() const { return m_pattern; }

    // The length of the match at the start of path, or -1 without one.
    int matchedLength(const QString &path) const;
    // Whether there is a match at the start of entry's path, found without
    // making the path when the pattern is a plain prefix.
    bool matches(const EntryCollector::Entry &entry) const
    {
        return m_isLiteral ? entry.pathStartsWith(m_literal) : matchedLength(entry.path()) >= 0;
    }

    // path with the match replaced by replacement, taken literally; a null
    // string when the pattern does not match.
    QString replaced(const QString &path, const QString &replacement) const;

private:
    QRegExp m_pattern; // matched only when there is no literal
    QString m_literal;
    bool m_isLiteral = false;
};

#endif // TRELLIS_SOURCEPATTERN_P_H
