// The environment part of a filter over a cache of 100,000 environments, as operator "pager" does it before it asks a
// source: each environment's fields bound where they lie, the filter evaluated, the identifiers of those that pass
// collected. `number` is one comparison, `mixed` four fields.
//
//     bench_pager [--smallest] [--check]

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
#include "support/Operations.h"

namespace {

using namespace QOR;
using namespace QOR::bench;

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
    double goal;  ///< nanoseconds a row
    const char* text;
    bool (*passes)(const Machine& machine);
};

constexpr std::array<Filter, 2> filters{{
    {"number", 60, "pager.env.state = 6", [](const Machine& machine) { return machine.state == 6; }},
    {"mixed", 120,
     "pager.env.config.hostname like 'web%' and pager.env.state = 6 and not (pager.env.config.os.name = 'linux' or "
     "pager.env.config.memory < 2048)",
     [](const Machine& machine) {
         return machine.hostname.starts_with("web") && machine.state == 6 &&
                !(machine.os == "linux" || machine.memory < 2048);
     }},
}};

std::vector<Machine> makeMachines(std::size_t environments) {
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

QORPtr<const QOREnv> toEnv(std::size_t number, const Machine& machine) {
    QOREnvConfigData data;
    data[QOREnvMember::Hostname] = machine.hostname;
    data[QOREnvMember::OsName] = machine.os;
    data.addresses = {{"10.0.0.1"}};
    data.further.add("boot_time", "1700000000");
    data.further.add("memory", std::to_string(machine.memory));
    return makeQORPtr<const QOREnv>(eidOf(number), QOREID(), "title", QOREnv::Status{machine.state, 0},
                                    makeQORPtr<const QOREnvConfig>(std::move(data)), nullptr);
}

/// The cache, the fields and the filter of one request.
struct Request {
    Request(const Filter& asked, std::size_t environments) {
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
        check(!filter.prepareSpecial(), "the filter does not parse");
        for (const std::string& name : filter.usedIdentifiers())
            whereFields.push_back(&*fields.find(name));

        const std::vector<Machine> machines = makeMachines(environments);
        std::vector<QORPtr<const QOREnv>> envs;
        for (std::size_t number = 0; number < machines.size(); ++number) {
            envs.push_back(toEnv(number, machines[number]));
            expected += asked.passes(machines[number]) ? 1 : 0;
        }
        cache.update(std::move(envs));
        const QORClientContextScope scope(fullAccess());
        list = cache.getEnvList();
    }

    QOREIDList passing() {
        QOREnvPreFilter preFilter(filter, whereFields);
        QOREIDList eids;
        check(preFilter.run(*list, eids) == 0, preFilter.error());
        return eids;
    }

    QORFieldSet fields;
    TExpressionEvaluation filter;
    std::vector<const QORField*> whereFields;
    QOREnvCache cache;
    QORPtr<const QOREnvList> list;
    std::size_t expected = 0;
};

void measure(Figures& figures, const Filter& filter, std::size_t environments) {
    Request request(filter, environments);
    check(request.passing().size() == request.expected && request.expected != 0, "other rows than expected");
    std::vector<double> times;
    for (unsigned round = 0; round < (figures.smallest() ? 1 : 51); ++round)
        times.push_back(processorSecondsEach(1, [&] { request.passing(); }) * 1e9 / static_cast<double>(environments));
    figures.print(std::string("pre-filter/") + filter.name + "/" + std::to_string(environments),
                  std::to_string(request.expected) + " pass", median(std::move(times)), " ns/row",
                  Goal::atMost(filter.goal));
}

void run(Figures& figures) {
    for (const Filter& filter : filters)
        measure(figures, filter, figures.smallest() ? 1000 : 100'000);
}

}  // namespace

int main(int argc, char** argv) {
    return runBenchmark(argc, argv, "usage: bench_pager [--smallest] [--check]", run);
}
