#include "ConflictJudge.h"

#include <QDateTime>
#include <QFileInfo>

bool ConflictJudge::Overwrites(CommandLine::ConflictRule rule, const QFileInfo &source,
                               const QFileInfo &destination)
{
    switch (rule) {
    case CommandLine::Overwrite:
        return true;
    case CommandLine::Newer:
        return source.lastModified() > destination.lastModified();
    case CommandLine::Different:
        return source.size() != destination.size()
                || source.lastModified() != destination.lastModified();
    case CommandLine::Ask:
    case CommandLine::Skip:
        break;
    }
    return false;
}
