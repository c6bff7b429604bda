#include "DestinationPrefix_p.h"

#include "SourcePattern_p.h"

#include <Trellis/TFileSystemHelper.h>

namespace {

// Whether text holds a place marker that QString::arg() replaces: a '%', an
// optional 'L' and a digit.
bool HasPlaceMarker(const QString &text)
{
    const QLatin1Char percent('%');
    for (int at = text.indexOf(percent); at >= 0; at = text.indexOf(percent, at + 1)) {
        int digit = at + 1;
        if (digit < text.size() && text.at(digit) == QLatin1Char('L'))
            ++digit;
        if (digit < text.size() && text.at(digit).isDigit())
            return true;
    }
    return false;
}

} // namespace

DestinationPrefix::DestinationPrefix(const QString &text)
    : m_text(text), m_hasPlaceMarker(HasPlaceMarker(text))
{ }

QString DestinationPrefix::existingDestination(const QFileInfo &item,
                                               const SourcePattern &pattern) const
{
    // Asked first: the one look it takes at the item answers exists() too.
    const bool isFile = item.isFile();
    if (!isFile && !item.exists())
        return QString();
    const QString destination
            = pattern.replaced(EntryCollector::absolutePath(item), For(item.filePath()));
    if (destination.isNull() || QFileInfo::exists(destination))
        return destination;
    if (!isFile)
        return QString();
    const QString written = TFileSystemHelper::FileCopyLowerCaseDestFilename(destination);
    return written != destination && QFileInfo::exists(written) ? written : QString();
}
