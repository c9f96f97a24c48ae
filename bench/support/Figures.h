/// \file
/// What every benchmark does alike: its command line, measuring two things in turns, printing a figure beside its goal.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace QOR::bench {

/// Ends the benchmark: what it works on is not right, so its figures would mean nothing.
inline void check(bool holds, const std::string& what) {
    if (!holds) throw std::logic_error(what);
}

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

/// Processor time of the calling thread: what else the machine does stays out of it.
double processorSeconds();
/// What another process has used of it so far, to a hundredth of a second.
double processorSecondsOf(pid_t process);

double median(std::vector<double> values);

/// What a figure is held to.
struct Goal {
    enum class Kind { None, AtMost, AtLeast };
    Kind kind = Kind::None;
    double bound = 0;

    static Goal none() { return {}; }
    static Goal atMost(double bound) { return {Kind::AtMost, bound}; }
    static Goal atLeast(double bound) { return {Kind::AtLeast, bound}; }

    bool isMet(double value) const;
    /// "goal <= 1.3", or nothing.
    std::string text() const;
};

/// Medians of rounds in which two things took turns, in the unit in which they were given.
struct Turns {
    double baseline = 0;
    double ours = 0;
    double ratio = 0;  ///< median of ours / baseline of each round
};

/// Takes turns, after one round that warms up and does not count; who begins changes from round to round.
/// \param baseline, ours do the thing once and return what it took
Turns takeTurns(unsigned rounds, const std::function<double()>& baseline, const std::function<double()>& ours);

/// One run of a benchmark. Used by one thread.
class Figures {
public:
    /// Only a glance at everything is wanted: results are checked on the smallest data; times
    /// mean nothing, so that no goal counts.
    bool smallest() const noexcept { return m_smallest; }
    /// What stands on the command line beside the options.
    const std::vector<std::string>& arguments() const noexcept { return m_arguments; }
    /// The argument at that position as a whole number from 1 on, or the other where there is none.
    std::size_t number(std::size_t position, std::size_t otherwise) const;

    /// Prints a line: name, details, the figure, its goal and whether that is met.
    /// \param unit stands behind the figure, "ratio" in front of it
    void print(const std::string& name, const std::string& details, double value, std::string_view unit,
               const Goal& goal = Goal::none());

    /// Takes turns and prints the medians, in microseconds, and the ratio.
    /// \param baseline, ours return seconds
    void ratio(const std::string& name, const Goal& goal, unsigned rounds, const std::function<double()>& baseline,
               const std::function<double()>& ours);

    /// Prints what two things did in turns as rates, and the ratio of the rates: of ours to the baseline.
    /// \param turns in seconds \param items that each did in a turn
    void printRates(const std::string& name, const Turns& turns, double items, const Goal& goal);

private:
    friend int runBenchmark(int argc, char** argv, std::string_view usage,
                            const std::function<void(Figures&)>& benchmark);
    bool m_smallest = false;
    bool m_check = false;
    std::size_t m_missed = 0;
    std::vector<std::string> m_arguments;
};

/// The whole of main(): `--smallest` and `--check` are understood by every benchmark, `--help` prints the usage.
/// \returns 0; 1 when it failed or, with --check, a goal is missed; 2 for a wrong command line
int runBenchmark(int argc, char** argv, std::string_view usage, const std::function<void(Figures&)>& benchmark);

/// The same thing so many times, in seconds of this thread's processor time each.
template <class Work>
double processorSecondsEach(unsigned times, Work&& work) {
    const double from = processorSeconds();
    for (unsigned i = 0; i < times; ++i)
        work();
    return (processorSeconds() - from) / times;
}

/// \returns seconds by the clock on the wall
template <class Work>
double wallSeconds(Work&& work) {
    const auto from = Clock::now();
    work();
    return secondsSince(from);
}

}  // namespace QOR::bench
