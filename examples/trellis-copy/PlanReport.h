#ifndef TRELLIS_COPY_PLANREPORT_H
#define TRELLIS_COPY_PLANREPORT_H

#include "CommandLine.h"

class Console;
class CopyPlan;
class CopyTally;

/*!
    Tells the user about a plan before anything is copied: the links not
    followed because they lead back into the tree (always, once each), the
    other entries left out (counted in the tally, listed with --verbose and
    --dry-run), and for a dry run every entry and what would become of it.
*/
class PlanReport
{
public:
    PlanReport(const CopyPlan &plan, const CommandLine &request, Console &console);

    //! Reports and counts the entries left out.
    void ReportLeftOut(CopyTally &tally) const;

    /*!
        Lists what would be copied, asked about, overwritten, skipped or
        reported as colliding, and ends with the counts.
    */
    void ListDryRun() const;

private:
    const CopyPlan &m_plan;
    const CommandLine &m_request;
    Console &m_console;
};

#endif // TRELLIS_COPY_PLANREPORT_H
