#include <string>
#include <vector>

#include "postgresql/ByHand.h"
#include "postgresql/PostgresBench.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR::bench {
namespace {

// As the layer writes it.
constexpr const char* sql =
    "SELECT \"vOpLog\".\"eid\", \"vOpLog\".\"id\", \"vOpLog\".\"message\", \"vOpLog\".\"op\", \"vOpLog\".\"status\", "
    "CAST(\"vOpLog\".\"time\" AS text) FROM \"vOpLog\"";
constexpr std::size_t columns = 6;

/// All rows through the layer, to the texts of all values. \returns how many
std::int64_t throughLayer() {
    const auto domain = std::make_shared<ASDomain>("vOpLog", "");
    std::vector<ASDataPtr> data;
    QORRdbmsTran transaction(ASAccess::ReadLong);
    ASCursor cursor(*transaction);
    auto& project = cursor.Filter().Project();
    const auto add = [&](const char* name, ASDataPtr receiver) {
        ASAttribute attribute(name, receiver->type());
        attribute.Register(receiver, domain);
        project << attribute;
        data.push_back(std::move(receiver));
    };
    add("eid", std::make_shared<ASGuid>());
    add("id", std::make_shared<ASVStr>(129));
    add("message", std::make_shared<ASVStr>(1));
    add("op", std::make_shared<ASVStr>(129));
    add("status", std::make_shared<ASInt>());
    add("time", std::make_shared<ASTime>());
    std::size_t bytes = 0;
    ASTextBuffer scratch;
    while (cursor.Fetch()) {
        for (const auto& value : data)
            bytes += value->text(scratch).size();
    }
    check(bytes != 0, "the rows are empty");
    return cursor.GetAmount();
}

}  // namespace

void measureStream(Figures& figures, const Log& log) {
    log.open();
    const auto size = static_cast<std::int64_t>(log.size());
    const auto driver = driverByHand(
        log.database().connectionString() + ";UseDeclareFetch=1;Fetch=10000;Protocol=7.4-0", sql, {}, columns);
    const auto library = libraryByHand(PostgresServer::shared().conninfo(log.database().name()), sql);
    const auto timed = [size](auto fetch) {
        return [size, fetch] { return wallSeconds([&] { check(fetch() == size, "the rows are not all there"); }); };
    };
    const unsigned rounds = figures.smallest() ? 1 : 9;
    const std::string name = "fetch of " + std::to_string(size) + " rows";
    const Turns beside = takeTurns(rounds, timed([&] { return driver->run({}); }), timed(throughLayer));
    figures.print(name + ", beside the driver",
                  "baseline " + std::to_string(beside.baseline) + " s, ours " + std::to_string(beside.ours) + " s",
                  beside.ratio, "ratio", Goal::atMost(1.2));
    const Turns bare =
        takeTurns(figures.smallest() ? 1 : 3, timed([&] { return library->run({}); }), timed(throughLayer));
    figures.print(name + ", beside the library", "all in memory at once there", bare.ratio, "ratio");
}

}  // namespace QOR::bench
