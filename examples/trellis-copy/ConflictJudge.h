#ifndef TRELLIS_COPY_CONFLICTJUDGE_H
#define TRELLIS_COPY_CONFLICTJUDGE_H

#include "CommandLine.h"

class QFileInfo;

/*!
    Decides a conflict by a rule that needs no one to ask: overwrite, skip,
    or compare the source with its existing destination (newer: the source
    was modified later; different: size or modification time differ). A
    directory item is compared by its own size and modification time.
*/
class ConflictJudge
{
public:
    //! Whether \a rule (not Ask) overwrites \a destination with \a source.
    static bool Overwrites(CommandLine::ConflictRule rule, const QFileInfo &source,
                           const QFileInfo &destination);
};

#endif // TRELLIS_COPY_CONFLICTJUDGE_H
