// pre-filter/100000: the environment part of a filter over a cache of 100,000 environments, values read by the fields'
// getters, each row bound and evaluated, as operator "pager" does before it asks a log. Reported: time a row.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "QORLibAgent/QOREnvCache.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/Operators/Pager/QOREIDFilter.h"
#include "QORPager/Operators/Pager/QOREnvPreFilter.h"
#include "QORPager/QORFieldSet.h"

namespace {

using namespace QOR;

constexpr std::size_t environments = 100'000;
constexpr const char* filterText =
    "pager.env.config.hostname like 'web%' and pager.env.state = 6 and not (pager.env.config.os.name = 'linux' or "
    "pager.env.config.memory < 2048)";
constexpr const char* vocabulary = R"(<vocabulary><category name="pager_fields">
  <parameter id="pager.env.config.memory"><source>env/config/memory</source><type>int</type></parameter>
</category></vocabulary>)";

struct Machine {
    std::string hostname;
    int state;
    std::string os;
    int memory;

    bool passes() const { return hostname.starts_with("web") && state == 6 && !(os == "linux" || memory < 2048); }
};

std::vector<Machine> makeMachines() {
    std::mt19937 random(1);
    const auto below = [&](unsigned limit) { return static_cast<int>(random() % limit); };
    const char* const hosts[] = {"web", "db", "mail", "cache"};
    const char* const systems[] = {"linux", "windows", "freebsd"};
    std::vector<Machine> machines;
    for (std::size_t number = 0; number < environments; ++number) {
        machines.push_back({hosts[below(4)] + std::to_string(number), below(3) == 0 ? below(9) : 6, systems[below(3)],
                            512 * (1 + below(32))});
    }
    return machines;
}

QOREID eidOf(std::size_t number) {
    char text[40];
    std::snprintf(text, sizeof text, "00000000-0000-4000-8000-%012zx", number + 1);
    QOREID eid;
    eid.fromString(text);
    return eid;
}

QORPtr<const QOREnv> toEnv(std::size_t number, const Machine& machine) {
    QOREnvConfigData data;
    data.hostname = machine.hostname;
    data.os.name = machine.os;
    data.addresses = {{"10.0.0.1"}};
    data.further.add("boot_time", "1700000000");
    data.further.add("memory", std::to_string(machine.memory));
    return makeQORPtr<const QOREnv>(eidOf(number), QOREID(), "title", QOREnv::Status{machine.state, 0},
                                    makeQORPtr<const QOREnvConfig>(std::move(data)), nullptr);
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::exit(1);
}

/// The cache, the fields and the filter of one request.
struct Request {
    Request() {
        QORVocReader reader;
        reader.readText(vocabulary, "bench.xml");
        vocCacheLocal()->setVocabulary(reader.vocabulary());
        fields.init(nullptr);
        for (const QORField& field : fields) {
            const bool special = field.cursorType == TCursorType::Env;
            if (field.valueType == TValueType::Integer) {
                filter.setIdentifier(field.name, 0, special);
            } else {
                filter.setIdentifier(field.name, "", special);
            }
        }
        filter.setExpression(filterText);
        if (filter.prepareSpecial()) fail("the filter does not parse");
        for (const std::string& name : filter.usedIdentifiers())
            whereFields.push_back(&*fields.find(name));

        const std::vector<Machine> machines = makeMachines();
        std::vector<QORPtr<const QOREnv>> envs;
        for (std::size_t number = 0; number < machines.size(); ++number) {
            envs.push_back(toEnv(number, machines[number]));
            expected += machines[number].passes() ? 1 : 0;
        }
        cache.update(std::move(envs));
        auto context = std::make_shared<QORClientContext>();
        context->fullAccess = true;
        const QORClientContextScope scope(context);
        list = cache.getEnvList();
    }

    std::set<QOREID> passing() {
        QOREnvPreFilter preFilter(filter, whereFields);
        std::set<QOREID> eids;
        if (preFilter.run(*list, eids) != 0) fail(preFilter.error().c_str());
        return eids;
    }

    QORFieldSet fields;
    TExpressionEvaluation filter;
    std::vector<const QORField*> whereFields;
    QOREnvCache cache;
    QORPtr<const QOREnvList> list;
    std::size_t expected = 0;
};

void preFilter(benchmark::State& state) {
    Request request;
    if (request.passing().size() != request.expected || request.expected == 0) fail("other rows than expected");
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(request.passing());
    state.counters["passing"] = static_cast<double>(request.expected);
    state.counters["row"] = benchmark::Counter(
        static_cast<double>(environments), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(preFilter)->Name("pre-filter/100000")->Unit(benchmark::kMillisecond);

}  // namespace
