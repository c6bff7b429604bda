//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_DESTINATIONPREFIX_P_H
#define TRELLIS_DESTINATIONPREFIX_P_H

#include "EntryCollector_p.h"

#include <QFileInfo>
#include <QString>

class SourcePattern;

// The destination prefix of a copy batch, in which a place marker stands
// for each entry's complete base name. QString::arg() warns about a text
// without one, and the library writes no log, so such a prefix is used as
// it stands.
class DestinationPrefix
{
public:
    explicit DestinationPrefix(const QString &text);

    // The prefix for the entry at path: its place marker replaced by the
    // entry's name.
    QString For(const QString &path) const
    {
        return m_hasPlaceMarker ? m_text.arg(QFileInfo(path).completeBaseName()) : m_text;
    }
    // The same for an entry, whose path is made only when the prefix needs it.
    QString For(const EntryCollector::Entry &entry) const
    {
        return m_hasPlaceMarker ? For(entry.filePath()) : m_text;
    }

    // What exists at the destination of item, its source prefix matched by
    // pattern, which makes it a conflict: its destination path or, for a
    // file, the name the copier writes, its extension lower-cased; a null
    // string for none, also for an item that has vanished.
    QString existingDestination(const QFileInfo &item, const SourcePattern &pattern) const;

private:
    const QString m_text;
    const bool m_hasPlaceMarker;
};

#endif // TRELLIS_DESTINATIONPREFIX_P_H
