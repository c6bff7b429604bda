//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_ENTRYCOPIER_P_H
#define TRELLIS_ENTRYCOPIER_P_H

#include "filesystem/FileCopier_p.h"

#include <QString>

class EntryCollector;
class FlushPool;
class SourcePattern;

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

    // Hands the last flush of each file to pool, which must wait for all
    // of them before it goes; null makes each copy durable before copy()
    // returns.
    void setFlushPool(FlushPool *pool) { m_options.flushPool = pool; }

    // Closes the directories kept open: a copy after this one finds its
    // directories by their paths again.
    void forgetDirectories() { m_kept.forget(); }

private:
    const EntryCollector &m_collector;
    FileCopier::Options m_options;
    FileCopier::KeptDirectories m_kept;
};

#endif // TRELLIS_ENTRYCOPIER_P_H
