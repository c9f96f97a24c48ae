// pre-filter/FILTER/100000: the environment part of a filter over a cache of 100,000 environments, as operator "pager"
// does it before it asks a source: each environment's fields bound where they lie, the filter evaluated, the
// identifiers of those that pass collected. Reported: time a row. `number` is one comparison, `mixed` four fields.

#include <benchmark/benchmark.h>

#include <array>
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
constexpr const char* vocabulary = R"(<vocabulary><category name="pager_fields">
  <parameter id="pager.env.config.memory"><source>env/config/memory</source><type>int</type></parameter>
</category></vocabulary>)";

struct Machine {
    std::string hostname;
    int state;
    std::string os;
    int memory;
};

struct Filter {
    const char* name;
    const char* text;
    bool (*passes)(const Machine& machine);
};

constexpr std::array<Filter, 2> filters{{
    {"number", "pager.env.state = 6", [](const Machine& machine) { return machine.state == 6; }},
    {"mixed",
     "pager.env.config.hostname like 'web%' and pager.env.state = 6 and not (pager.env.config.os.name = 'linux' or "
     "pager.env.config.memory < 2048)",
     [](const Machine& machine) {
         return machine.hostname.starts_with("web") && machine.state == 6 &&
                !(machine.os == "linux" || machine.memory < 2048);
     }},
}};

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
    char text[64];
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
    explicit Request(const Filter& asked) {
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
        filter.setExpression(asked.text);
        if (filter.prepareSpecial()) fail("the filter does not parse");
        for (const std::string& name : filter.usedIdentifiers())
            whereFields.push_back(&*fields.find(name));

        const std::vector<Machine> machines = makeMachines();
        std::vector<QORPtr<const QOREnv>> envs;
        for (std::size_t number = 0; number < machines.size(); ++number) {
            envs.push_back(toEnv(number, machines[number]));
            expected += asked.passes(machines[number]) ? 1 : 0;
        }
        cache.update(std::move(envs));
        auto context = std::make_shared<QORClientContext>();
        context->fullAccess = true;
        const QORClientContextScope scope(context);
        list = cache.getEnvList();
    }

    QOREIDList passing() {
        QOREnvPreFilter preFilter(filter, whereFields);
        QOREIDList eids;
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

void preFilter(benchmark::State& state, const Filter& filter) {
    Request request(filter);
    if (request.passing().size() != request.expected || request.expected == 0) fail("other rows than expected");
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(request.passing());
    state.counters["passing"] = static_cast<double>(request.expected);
    state.counters["row"] = benchmark::Counter(
        static_cast<double>(environments), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
const bool registered = [] {
    for (const Filter& filter : filters) {
        benchmark::RegisterBenchmark((std::string("pre-filter/") + filter.name + "/100000").c_str(), preFilter, filter)
            ->Unit(benchmark::kMillisecond);
    }
    return true;
}();

}  // namespace
