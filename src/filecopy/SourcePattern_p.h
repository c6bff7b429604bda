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

    // Whether the pattern matches path: QString::indexOf() finds it. A
    // pattern anchored with "^" alone finds it only at the start.
    bool matches(const QString &path) const;
    // The same for entry's path, without making the path when the pattern
    // is a plain prefix.
    bool matches(const EntryCollector::Entry &entry) const
    {
        return m_isLiteral ? entry.pathStartsWith(m_literal) : matches(entry.path());
    }

    // path with the pattern's matches replaced by replacement, as
    // QString::replace() replaces them: where the pattern captures, \1 to
    // \9 in replacement stand for what it captured; elsewhere replacement
    // is taken literally. A null string when the pattern does not match.
    QString replaced(const QString &path, const QString &replacement) const;
    // What replaced() makes of the paths in directory, a path that ends in
    // a slash: for every name without one, replaced(directory + name) is
    // the result followed by name. A null string when that depends on the
    // name (the pattern is no plain prefix, or it reaches into the name) or
    // the pattern does not match.
    QString replacedDirectory(const QString &directory, const QString &replacement) const;

    bool operator==(const SourcePattern &other) const { return m_pattern == other.m_pattern; }

private:
    // Matched only when there is no literal, through copies: a match
    // records its captures in the object.
    QRegExp m_pattern;
    QString m_literal;
    bool m_isLiteral = false;
};

#endif // TRELLIS_SOURCEPATTERN_P_H
