#include "PlanReport.h"

#include "ConflictJudge.h"
#include "Console.h"
#include "CopyPlan.h"
#include "CopyTally.h"

PlanReport::PlanReport(const CopyPlan &plan, const CommandLine &request, Console &console)
    : m_plan(plan), m_request(request), m_console(console)
{ }

void PlanReport::ReportLeftOut(CopyTally &tally) const
{
    const bool listed = m_request.verbosity() == CommandLine::Verbose || m_request.dryRun();
    for (const CopyPlan::LeftOut &leftOut : m_plan.leftOut()) {
        tally.AddLeftOut(leftOut.reason);
        const QString path = leftOut.entry.absoluteFilePath();
        if (leftOut.reason == TFileCopyNotifier::LinkIntoTree)
            m_console.Error(QStringLiteral("trellis-copy: not following %1: it leads back into "
                                           "the tree")
                                    .arg(path));
        else if (listed)
            m_console.Print(QStringLiteral("left out %1 (%2)")
                                    .arg(path, CopyTally::Describe(leftOut.reason)));
    }
}

void PlanReport::ListDryRun() const
{
    const CommandLine::ConflictRule rule = m_request.conflictRule();
    int copies = 0, questions = 0, overwrites = 0, skips = 0, collisions = 0;
    for (const CopyBatch &batch : m_plan.batches()) {
        for (int index = 0; index < batch.items().size(); ++index) {
            const QFileInfo &item = batch.items().at(index);
            const QString existing = batch.ExistingDestination(item);
            const QString first = m_plan.CollidesWith(item);
            QString fate;
            if (!first.isEmpty()) {
                ++collisions;
                fate = QStringLiteral("collides with %1 at").arg(first);
            } else if (existing.isEmpty()) {
                for (int entry = batch.FirstEntry(index); entry < batch.EndEntry(index); ++entry)
                    m_console.Print(QStringLiteral("%1 -> %2")
                                            .arg(batch.entries().at(entry).absoluteFilePath(),
                                                 batch.WrittenPath(batch.entries().at(entry))));
                copies += batch.EndEntry(index) - batch.FirstEntry(index);
                continue;
            } else if (rule == CommandLine::Ask) {
                ++questions;
                fate = QStringLiteral("would be asked about, exists at");
            } else if (ConflictJudge::Overwrites(rule, item, QFileInfo(existing))) {
                ++overwrites;
                fate = QStringLiteral("would overwrite");
            } else {
                ++skips;
                fate = QStringLiteral("would be skipped, exists at");
            }
            m_console.Print(QStringLiteral("%1 %2 %3")
                                    .arg(item.absoluteFilePath(), fate, batch.WrittenPath(item)));
        }
    }
    m_console.Print(QStringLiteral("Dry run, nothing copied: %1 entries to copy, %2 conflicts "
                                   "to ask about, %3 to overwrite, %4 to skip, %5 colliding names")
                            .arg(copies)
                            .arg(questions)
                            .arg(overwrites)
                            .arg(skips)
                            .arg(collisions));
}
