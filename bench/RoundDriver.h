#ifndef TRELLIS_BENCH_ROUNDDRIVER_H
#define TRELLIS_BENCH_ROUNDDRIVER_H

// Compares named contenders on a machine whose speed drifts.
//
// A shared machine can run several times faster or slower from one minute
// to the next, so absolute figures taken minutes apart say little. The
// driver therefore runs every contender once per round, rotating the order
// from round to round so that none always runs first or last, and compares
// the contenders within each round only. It reports, for each contender,
// the median over the rounds of (reference rate / contender rate): above 1
// means the reference, the first contender added, was faster.
//
// Usage:
//     RoundDriver driver("queue, 1 + 1 threads", "msg/s");
//     driver.add("TQueue", [] { return messagesPerSecond(...); });
//     driver.add("std::mutex ring", [] { ... });
//     driver.run(rounds);
//
// Several drivers can also take turns, a round each, so that their figures
// are taken seconds rather than minutes apart: see rounds(), runRound(),
// printTitle() and printTable().
//
// The number of rounds can be overridden with the environment variable
// TRELLIS_BENCH_ROUNDS.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

class RoundDriver
{
public:
    // One trial of a contender: does a fixed amount of work and returns its
    // rate in the driver's unit.
    using Trial = std::function<double()>;

    RoundDriver(std::string title, std::string unit)
        : m_title(std::move(title)), m_unit(std::move(unit))
    { }

    // The first contender added is the reference the others are compared with.
    void add(std::string name, Trial trial)
    {
        m_contenders.push_back({ std::move(name), std::move(trial), {} });
    }

    // Runs one untimed warm-up round, then rounds rounds, and prints the table.
    void run(int rounds)
    {
        rounds = RoundDriver::rounds(rounds);
        printTitle(rounds);
        runRound(0, false);
        for (int round = 0; round < rounds; ++round)
            runRound(round, true);
        printTable();
    }

    // Runs body(0) ... body(threads - 1) in threads of their own, starts them
    // together once all exist, and returns the seconds until the last ends.
    static double timeThreads(int threads, const std::function<void(int)> &body)
    {
        std::atomic<int> ready { 0 };
        std::atomic<bool> go { false };
        std::vector<std::thread> workers;
        workers.reserve(threads);
        for (int i = 0; i < threads; ++i) {
            workers.emplace_back([&, i] {
                ++ready;
                while (!go.load(std::memory_order_acquire))
                    std::this_thread::yield();
                body(i);
            });
        }
        while (ready.load() < threads)
            std::this_thread::yield();
        const auto start = std::chrono::steady_clock::now();
        go.store(true, std::memory_order_release);
        for (auto &worker : workers)
            worker.join();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    // The number of timed rounds to run: wanted, unless overridden.
    static int rounds(int wanted)
    {
        if (const char *override = std::getenv("TRELLIS_BENCH_ROUNDS"))
            return std::max(1, std::atoi(override));
        return wanted;
    }

    // Runs every contender once, in an order rotated by round; a timed
    // round's rates are kept.
    void runRound(int round, bool timed)
    {
        const std::size_t count = m_contenders.size();
        for (std::size_t i = 0; i < count; ++i) {
            Contender &contender = m_contenders[(i + std::size_t(round)) % count];
            const double rate = contender.trial();
            if (timed)
                contender.rates.push_back(rate);
        }
    }

    // The rates of the contender added index-th, one per timed round.
    const std::vector<double> &rates(std::size_t index) const { return m_contenders[index].rates; }

    // Prints each contender's median rate and median ratio to the reference.
    void printTable() const
    {
        const Contender &reference = m_contenders.front();
        std::printf("%-38s %14s %14s %18s\n", "contender", ("median " + m_unit).c_str(),
                    "median ratio", "ratio range");
        for (const Contender &contender : m_contenders) {
            std::vector<double> ratios;
            for (std::size_t round = 0; round < contender.rates.size(); ++round)
                ratios.push_back(reference.rates[round] / contender.rates[round]);
            const auto [lowest, highest] = std::minmax_element(ratios.begin(), ratios.end());
            std::printf("%-38s %14.4g %14.2f %8.2f .. %6.2f\n", contender.name.c_str(),
                        median(contender.rates), median(ratios), *lowest, *highest);
        }
        std::printf("(ratio = %s rate / contender rate in the same round)\n\n",
                    reference.name.c_str());
        std::fflush(stdout);
    }

    void printTitle(int rounds) const
    {
        std::printf("== %s: %d rounds\n", m_title.c_str(), rounds);
        std::fflush(stdout);
    }

    static double median(std::vector<double> values)
    {
        std::sort(values.begin(), values.end());
        const std::size_t n = values.size();
        return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    }

private:
    struct Contender
    {
        std::string name;
        Trial trial;
        std::vector<double> rates; // one per timed round
    };

    std::string m_title;
    std::string m_unit;
    std::vector<Contender> m_contenders;
};

#endif // TRELLIS_BENCH_ROUNDDRIVER_H
