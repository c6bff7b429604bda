#ifndef TRELLIS_THREADCREW_H
#define TRELLIS_THREADCREW_H

#include "HangWatch.h"

#include <QStringList>

#include <atomic>
#include <list>

// Threads that work together on one test, each named and counting its steps,
// joined with a bound: if one hangs, the program ends with every thread that
// has not finished, what it is and how far it got, e.g.
//     Still waiting after 120 s for: consumer 2 at 5734 of 60000, producer 0 at 60000 of 60000
//
//     ThreadCrew crew;
//     crew.add(QStringLiteral("consumer %1").arg(c), perConsumer, [&](ThreadCrew::Steps &steps) {
//         for (...) { ...; ++steps; }
//     });
//     crew.run();
class ThreadCrew
{
public:
    using Steps = std::atomic<int>;

    // Adds a thread named name that is meant to take planned steps.
    void add(const QString &name, int planned, std::function<void(Steps &)> job)
    {
        Member &member = m_members.emplace_back();
        member.name = name, member.planned = planned, member.job = std::move(job);
    }

    // Starts every thread, then waits until all have finished.
    void run()
    {
        for (Member &member : m_members)
            member.thread
                    = std::thread([&member] { member.job(member.steps), member.finished = true; });
        const HangWatch watch([this] {
            QStringList running;
            for (const Member &member : m_members)
                if (!member.finished)
                    running << QStringLiteral("%1 at %2 of %3")
                                       .arg(member.name)
                                       .arg(member.steps.load())
                                       .arg(member.planned);
            return running.join(QStringLiteral(", "));
        });
        for (Member &member : m_members)
            member.thread.join();
        m_members.clear();
    }

private:
    struct Member
    {
        QString name;
        int planned = 0;
        std::function<void(Steps &)> job;
        alignas(64) Steps steps { 0 }; // a line of its own: every step writes it
        std::atomic<bool> finished { false };
        std::thread thread;
    };
    std::list<Member> m_members; // a list: its members never move
};

#endif // TRELLIS_THREADCREW_H
