#include "SourcePattern_p.h"

#include <cstring>

namespace {

// The characters that are special in QRegExp::RegExp syntax, which
// QRegExp::escape() escapes with a backslash.
bool isSpecial(QChar c)
{
    const ushort code = c.unicode();
    return code != 0 && code < 0x80 && std::strchr("$()*+.?[\\]^{|}", char(code));
}

} // namespace

SourcePattern::SourcePattern(const QRegExp &pattern) : m_pattern(pattern)
{
    const QString text = pattern.pattern();
    if (pattern.caseSensitivity() != Qt::CaseSensitive || pattern.patternSyntax() != QRegExp::RegExp
        || !text.startsWith(QLatin1Char('^')))
        return;
    // A special character is literal only when escaped; any other escape
    // (\d, \1, \x41) belongs to the regular expression.
    QString literal;
    literal.reserve(text.size());
    for (int i = 1; i < text.size(); ++i) {
        QChar c = text.at(i);
        if (c == QLatin1Char('\\')) {
            if (++i == text.size() || !isSpecial(text.at(i)))
                return;
            c = text.at(i);
        } else if (isSpecial(c)) {
            return;
        }
        literal.append(c);
    }
    m_literal = literal;
    m_isLiteral = true;
}

SourcePattern SourcePattern::forPrefix(const QString &srcPrefix)
{
    return SourcePattern(QRegExp(QLatin1Char('^') + srcPrefix, Qt::CaseSensitive, QRegExp::RegExp));
}

bool SourcePattern::matches(const QString &path) const
{
    return m_isLiteral ? path.startsWith(m_literal) : QRegExp(m_pattern).indexIn(path) != -1;
}

QString SourcePattern::replaced(const QString &path, const QString &replacement) const
{
    if (!m_isLiteral) {
        QRegExp matcher(m_pattern);
        if (matcher.indexIn(path) == -1)
            return QString();
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        // Qt 6 moved QString::replace(QRegExp) into QRegExp itself.
        return matcher.replaceIn(path, replacement);
#else
        return QString(path).replace(matcher, replacement);
#endif
    }
    if (!path.startsWith(m_literal))
        return QString();
    QString replaced;
    replaced.reserve(replacement.size() + path.size() - m_literal.size());
    replaced.append(replacement)
            .append(path.constData() + m_literal.size(), path.size() - m_literal.size());
    return replaced;
}

QString SourcePattern::replacedDirectory(const QString &directory, const QString &replacement) const
{
    if (!m_isLiteral || !directory.startsWith(m_literal))
        return QString();
    return replaced(directory, replacement);
}
