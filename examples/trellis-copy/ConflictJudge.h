#ifndef TRELLIS_COPY_CONFLICTJUDGE_H
#define TRELLIS_COPY_CONFLICTJUDGE_H

#include "CommandLine.h"

class QFileInfo;

//! Decides a conflict by a rule that needs no one to ask.
class ConflictJudge
{
public:
    /*!
        Whether \a rule overwrites \a destination with \a source. A directory
        is compared by its own size and modification time.
    */
    static bool Overwrites(CommandLine::ConflictRule rule, const QFileInfo &source,
                           const QFileInfo &destination);
};

#endif // TRELLIS_COPY_CONFLICTJUDGE_H
