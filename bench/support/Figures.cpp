#include "support/Figures.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "host/QORPlainNumber.h"

namespace QOR::bench {

namespace {

std::string fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

// Three figures that matter, whatever the size.
std::string plain(double value) {
    return fixed(value, value < 10 ? 2 : value < 100 ? 1 : 0);
}

class BadUsage : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace

double processorSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double processorSecondsOf(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string word;
    std::getline(file, word, ')');
    for (int skipped = 0; skipped < 11; ++skipped)
        file >> word;
    double user = 0;
    double system = 0;
    file >> user >> system;
    return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double median(std::vector<double> values) {
    check(!values.empty(), "nothing was measured");
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

bool Goal::isMet(double value) const {
    switch (kind) {
        case Kind::AtMost:
            return value <= bound;
        case Kind::AtLeast:
            return value >= bound;
        case Kind::None:
            break;
    }
    return true;
}

std::string Goal::text() const {
    if (kind == Kind::None) return {};
    return (kind == Kind::AtMost ? "goal <= " : "goal >= ") + plain(bound);
}

Turns takeTurns(unsigned rounds, const std::function<double()>& baseline, const std::function<double()>& ours) {
    baseline();
    ours();
    std::vector<double> plain, own, ratios;
    for (unsigned round = 0; round < rounds; ++round) {
        if (round % 2 == 0) plain.push_back(baseline());
        own.push_back(ours());
        if (round % 2 != 0) plain.push_back(baseline());
        ratios.push_back(own.back() / plain.back());
    }
    return {median(std::move(plain)), median(std::move(own)), median(std::move(ratios))};
}

std::size_t Figures::number(std::size_t position, std::size_t otherwise) const {
    if (position >= m_arguments.size()) return otherwise;
    constexpr QORNumberRange range{1, 1'000'000'000};
    const auto value = readPlainNumber(m_arguments[position], range);
    if (!value) throw BadUsage(describeBadNumber("a size", m_arguments[position], range));
    return *value;
}

void Figures::print(const std::string& name, const std::string& details, double value, std::string_view unit,
                    const Goal& goal) {
    const bool met = m_smallest || goal.isMet(value);
    m_missed += met ? 0 : 1;
    const std::string figure = unit == "ratio" ? "ratio " + fixed(value, 2) : plain(value) + std::string(unit);
    std::printf("%-44s %-40s %14s   %-14s%s\n", name.c_str(), details.c_str(), figure.c_str(), goal.text().c_str(),
                m_smallest || goal.kind == Goal::Kind::None ? ""
                : met                                       ? " met"
                                                            : " MISSED");
    std::fflush(stdout);
}

void Figures::ratio(const std::string& name, const Goal& goal, unsigned rounds, const std::function<double()>& baseline,
                    const std::function<double()>& ours) {
    const Turns turns = takeTurns(m_smallest ? 1 : rounds, baseline, ours);
    print(name, "baseline " + plain(turns.baseline * 1e6) + " us, ours " + plain(turns.ours * 1e6) + " us", turns.ratio,
          "ratio", goal);
}

void Figures::printRates(const std::string& name, const Turns& turns, double items, const Goal& goal) {
    print(name, "baseline " + plain(items / turns.baseline) + "/s, ours " + plain(items / turns.ours) + "/s",
          1 / turns.ratio, "ratio", goal);
}

int runBenchmark(int argc, char** argv, std::string_view usage, const std::function<void(Figures&)>& benchmark) {
    Figures figures;
    try {
        for (int i = 1; i < argc; ++i) {
            const std::string_view argument = argv[i];
            if (argument == "--help") return std::puts(std::string(usage).c_str()), 0;
            if (argument == "--smallest") {
                figures.m_smallest = true;
            } else if (argument == "--check") {
                figures.m_check = true;
            } else if (argument.starts_with("-")) {
                throw BadUsage("unknown option " + std::string(argument));
            } else {
                figures.m_arguments.emplace_back(argument);
            }
        }
        benchmark(figures);
    } catch (const BadUsage& bad) {
        std::fprintf(stderr, "%s\n%.*s\n", bad.what(), static_cast<int>(usage.size()), usage.data());
        return 2;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s: %s\n", argv[0], failure.what());
        return 1;
    }
    if (figures.m_missed != 0) std::printf("%zu missed\n", figures.m_missed);
    return figures.m_check && figures.m_missed != 0 ? 1 : 0;
}

}  // namespace QOR::bench
