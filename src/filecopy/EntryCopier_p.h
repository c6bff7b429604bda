//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_ENTRYCOPIER_P_H
#define TRELLIS_ENTRYCOPIER_P_H

#include "EntryCollector_p.h"
#include "SourcePattern_p.h"
#include "filesystem/FileCopier_p.h"

#include <QString>

#include <string>

class FlushPool;

// Copies the entries of a copy task, one at a time, to the paths its
// source pattern and destination prefix make of theirs. Files are copied
// by FileCopier, with the directories of one copy kept open for the next;
// a directory whose listing gave nothing to copy is made rather than
// copied.
class EntryCopier
{
public:
    // Copies entries that collector collected, reporting progress to report.
    EntryCopier(const EntryCollector &collector, FileCopier::Report report);

    // Copies the entry at source, an absolute and clean path, to its
    // destination: source with pattern's match replaced by destPrefix. A
    // failure leaves its cause in errno. A source gone before its copy
    // leaves its destination untouched.
    bool copy(const QString &source, const SourcePattern &pattern, const QString &destPrefix);
    // The same for entry, with destPrefix the prefix for it. The files of
    // one listed directory are copied by their names, without making their
    // paths, as long as the pattern replaces a part of the directory's path.
    bool copy(const EntryCollector::Entry &entry, const SourcePattern &pattern,
              const QString &destPrefix);

    // Hands the last flush of each file to pool, which must wait for all
    // of them before it goes; null makes each copy durable before copy()
    // returns.
    void setFlushPool(FlushPool *pool) { m_options.flushPool = pool; }

    // Closes the directories kept open: a copy after this one finds its
    // directories by their paths again.
    void forgetDirectories() { m_kept.forget(); }

private:
    // Where the files of one listed directory come from and go to, kept
    // from one copy to the next.
    struct Listing
    {
        QString directory; // the listed directory's path, ending in a slash
        SourcePattern pattern { QRegExp() };
        QString destPrefix;
        // Where its files go: a path that ends in a slash, or a null string
        // when their names do not end their destinations' paths.
        QString destination;
        // The two directories' paths, encoded.
        std::string sourceDirectory;
        std::string destDirectory;
    };
    const Listing &listingOf(const EntryCollector::Entry &entry, const SourcePattern &pattern,
                             const QString &destPrefix);

    // The bytes of a name as the locale's UTF-8 encodes it, in a buffer
    // that one copy leaves to the next, so that a file's copy needs no
    // memory of its own for them.
    const QByteArray &encoded(QStringView name);

    // The end of a copy that failed: a directory is made rather than copied.
    static bool madeAsDirectory(const QString &source, const QString &destination);

    const EntryCollector &m_collector;
    Listing m_listing;
    QByteArray m_name;
    FileCopier::Options m_options;
    FileCopier::KeptDirectories m_kept;
};

#endif // TRELLIS_ENTRYCOPIER_P_H
