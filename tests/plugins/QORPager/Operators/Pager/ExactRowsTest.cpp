// Exact requests against rows as a person would compute them: all sources, made-up filters, orders and pages.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QORCommon/QORTime.h"
#include "plugins/QORPager/Operators/Pager/ExactAnswer.h"
#include "plugins/QORPager/Operators/Pager/PagerHost.h"
#include "plugins/QORPager/Operators/Pager/RowModel.h"

namespace QOR::test {
namespace {

using Values = std::vector<std::string>;

std::string guid(unsigned number) {
    return "eeeeeeee-0000-4000-8000-00000000000" + std::to_string(number);
}

constexpr unsigned environments = 5;

/// A source's rows in its own order, and the records that they are made from.
struct Source {
    std::string idField;  ///< tells rows apart
    std::vector<ModelField> fields;
    std::vector<ModelRow> rows;
    std::string records;
};

class Maker {
public:
    explicit Maker(unsigned seed) : m_random(seed) {}

    Source environmentRows() {
        Source source{"pager.env.eid",
                      {{"pager.env.eid"}, {"pager.env.title"}, {"pager.env.state"}, {"pager.env.config.ip"}},
                      {},
                      {}};
        for (unsigned number = 1; number <= environments; ++number) {
            const std::string title = pick(2) == 0 ? "" : "T" + std::to_string(pick(3));
            const std::string state = std::to_string(pick(12));
            Values addresses;
            for (unsigned left = pick(4); left > 0; --left)
                addresses.push_back("10.0.0." + std::to_string(pick(4)));
            m_titles[guid(number)] = title;
            source.records += R"({"kind":"environment","eid":")" + guid(number) + R"(","state":)" + state +
                              R"(,"title":")" + title + R"(","config":{"ip":)" + list(addresses) + "}}\n";
            ModelRow row;
            row.values = {{"pager.env.eid", {guid(number)}},
                          {"pager.env.title", {title}},
                          {"pager.env.state", {state}},
                          {"pager.env.config.ip", addresses}};
            row.key = guid(number);
            source.rows.push_back(row);
        }
        return source;
    }

    Source operationRows(unsigned count) {
        Source source{"pager.op_log.id",
                      {{"pager.op_log.id"},
                       {"pager.op_log.op"},
                       {"pager.op_log.status", ModelType::Number},
                       {"pager.op_log.time", ModelType::Time},
                       {"pager.op_log_eid.eid"},
                       {"pager.op_log.parameter.env.eid"},
                       {"pager.op_log.parameter.Package.name"},
                       {"pager.env.title"}},
                      {},
                      {}};
        static constexpr const char* names[] = {"install", "remove", "update", "stall", ""};
        for (unsigned number = 1; number <= count; ++number) {
            const std::string id = "o" + std::to_string(number);
            const std::string op = names[pick(5)];
            const std::string status = std::to_string(static_cast<int>(pick(5)) - 2);
            const std::string owner = ownerOrNone();
            const std::string package = pick(3) == 0 ? "" : "p" + std::to_string(pick(12));
            const std::int64_t second = this->second();
            Values touched;
            for (unsigned eid = 1; eid <= environments; ++eid)
                if (pick(4) == 0) touched.push_back(guid(eid));
            Values all = touched;
            if (!owner.empty()) {
                std::erase(all, owner);
                all.insert(all.begin(), owner);
            }
            source.records += R"({"kind":"operation","id":")" + id + R"(","op":")" + op + R"(","status":)" + status +
                              R"(,"time":)" + std::to_string(second) + owned(owner) + R"(,"eids":)" + list(touched) +
                              R"(,"message":{"Package":{"name":")" + package + "\"}}}\n";
            ModelRow row;
            row.values = {{"pager.op_log.id", {id}},
                          {"pager.op_log.op", {op}},
                          {"pager.op_log.status", {status}},
                          {"pager.op_log.time", {std::to_string(second)}},
                          {"pager.op_log_eid.eid", touched},
                          {"pager.op_log.parameter.env.eid", all},
                          {"pager.op_log.parameter.Package.name", {package}},
                          {"pager.env.title", {m_titles[owner]}}};
            row.number = number;
            source.rows.push_back(row);
        }
        sortNewestFirst(source, "pager.op_log.time", true);
        return source;
    }

    Source eventRows(unsigned count) {
        Source source{"pager.event_log.source",
                      {{"pager.event_log.source"},
                       {"pager.event_log.category"},
                       {"pager.event_log.time", ModelType::Time},
                       {"pager.event_log.parameter.env.eid"},
                       {"pager.env.title"}},
                      {},
                      {}};
        static constexpr const char* categories[] = {"resource_alert", "env_status", "other"};
        for (unsigned number = 1; number <= count; ++number) {
            const std::string name = "e" + std::to_string(number);
            const std::string category = categories[pick(3)];
            const std::string owner = ownerOrNone();
            const std::int64_t second = this->second();
            source.records += R"({"kind":"event","source":")" + name + R"(","category":")" + category + R"(","time":)" +
                              std::to_string(second) + owned(owner) + "}\n";
            ModelRow row;
            row.values = {{"pager.event_log.source", {name}},
                          {"pager.event_log.category", {category}},
                          {"pager.event_log.time", {std::to_string(second)}},
                          {"pager.event_log.parameter.env.eid", {owner}},
                          {"pager.env.title", {m_titles[owner]}}};
            row.number = number;
            source.rows.push_back(row);
        }
        sortNewestFirst(source, "pager.event_log.time", true);
        return source;
    }

    Source backupRows(unsigned count) {
        Source source{"pager.backup.id",
                      {{"pager.backup.id"},
                       {"pager.backup.time", ModelType::Time},
                       {"pager.backup.size", ModelType::Number},
                       {"pager.backup.info.name"},
                       {"pager.backup.info.veid"},
                       {"pager.backup.storage_eid"},
                       {"pager.env.title"}},
                      {},
                      {}};
        for (unsigned number = 1; number <= count; ++number) {
            const std::string id = "b" + std::to_string(number);
            const std::string owner = ownerOrNone();
            const std::string storage = ownerOrNone();
            const std::string name = "Web-" + std::to_string(pick(4));
            const std::string veid = std::to_string(pick(3));
            const std::string size = std::to_string(pick(4));
            const std::int64_t second = this->second();
            source.records += R"({"kind":"backup","id":")" + id + R"(","time":)" + std::to_string(second) +
                              R"(,"size":)" + size + R"(,"name":")" + name + "\"" + owned(owner) +
                              (storage.empty() ? "" : R"(,"storage_eid":")" + storage + "\"") + R"(,"info":{"veid":")" +
                              veid + "\"}}\n";
            ModelRow row;
            row.values = {{"pager.backup.id", {id}},
                          {"pager.backup.time", {std::to_string(second)}},
                          {"pager.backup.size", {size}},
                          {"pager.backup.info.name", {name}},
                          {"pager.backup.info.veid", {veid}},
                          {"pager.backup.storage_eid", {storage}},
                          {"pager.env.title", {m_titles[owner]}}};
            row.key = id;
            source.rows.push_back(row);
        }
        sortNewestFirst(source, "pager.backup.time", false);
        return source;
    }

private:
    unsigned pick(unsigned below) { return static_cast<unsigned>(m_random() % below); }
    /// Many of them come more than once.
    std::int64_t second() { return 1700000000 + 7 * static_cast<std::int64_t>(pick(40)); }
    std::string ownerOrNone() {
        const unsigned number = pick(environments + 1);
        return number == 0 ? std::string() : guid(number);
    }
    static std::string owned(const std::string& owner) { return owner.empty() ? "" : R"(,"eid":")" + owner + "\""; }
    static std::string list(const Values& values) {
        std::string text = "[";
        for (const std::string& value : values)
            text += (text.size() > 1 ? ",\"" : "\"") + value + "\"";
        return text + "]";
    }
    static void sortNewestFirst(Source& source, const std::string& time, bool laterFirst) {
        std::stable_sort(source.rows.begin(), source.rows.end(), [&](const ModelRow& a, const ModelRow& b) {
            const std::string& left = a.values.at(time).front();
            const std::string& right = b.values.at(time).front();
            if (left != right) return left > right;
            return laterFirst ? a.number > b.number : a.key < b.key;
        });
    }

    std::mt19937 m_random;
    std::map<std::string, std::string> m_titles;
};

class ExactRows : public ::testing::Test {
protected:
    void SetUp() override {
        host.useShippedVocabulary();
        Maker maker(20261122);
        sources = {maker.environmentRows(), maker.operationRows(160), maker.eventRows(120), maker.backupRows(60)};
        for (const Source& source : sources)
            host.import(source.records);
        const QORClientContextScope scope(fullAccess());
        host.envs.cache.refresh();
        client.emplace();
    }

    static std::string timeText(const std::string& seconds) { return "'" + time2str(std::stoll(seconds)) + "'"; }

    static Ask askFor(const Source& source, const ModelFilter& filter, const std::vector<ModelSort>& sort) {
        Ask ask{{source.idField}, filter.text, exact};
        for (const ModelSort& key : sort)
            ask.more += ",[1743,[[1741,\"" + key.field.name + "\"]" + (key.descending ? ",[1378]" : "") + "]]";
        return ask;
    }
    static Values idsOf(const Source& source, const std::vector<ModelRow>& rows) {
        Values ids;
        for (const ModelRow& row : rows)
            ids.push_back(row.values.at(source.idField).front());
        return ids;
    }
    static Values idsOf(const Answer& answer) {
        Values ids;
        for (const auto& row : answer.rows)
            ids.push_back(row.front());
        return ids;
    }

    /// The rows whole, by offset, and page by page.
    void expectRows(const Source& source, const ModelFilter& filter, const std::vector<ModelSort>& sort,
                    std::size_t size) {
        const Ask ask = askFor(source, filter, sort);
        SCOPED_TRACE(ask.body());
        const Values expected = idsOf(source, select(source.rows, &filter, sort));
        const auto total = static_cast<std::int64_t>(expected.size());

        const Answer whole = readAnswer(client->ask(Ask{ask.fields, ask.where, ask.more + counts}.body()));
        EXPECT_EQ(whole.error, "");
        EXPECT_EQ(idsOf(whole), expected);
        EXPECT_EQ(whole.counts, (std::pair(total, total)));

        const std::size_t offset = size % (expected.size() + 2);
        const std::string page = limit(static_cast<int>(size), static_cast<int>(offset));
        const Answer cut = readAnswer(client->ask(Ask{ask.fields, ask.where, ask.more + page + counts}.body()));
        const auto from = expected.begin() + static_cast<std::ptrdiff_t>(std::min(offset, expected.size()));
        const auto to = expected.begin() + static_cast<std::ptrdiff_t>(std::min(offset + size, expected.size()));
        EXPECT_EQ(idsOf(cut), Values(from, to));
        EXPECT_EQ(cut.counts, (std::pair(std::int64_t{to - from}, total)));

        Values walked;
        PageWalk walk(*client, ask, static_cast<int>(size));
        while (walk.next() && walked.size() <= expected.size())
            for (const std::string& id : idsOf(walk.answer()))
                walked.push_back(id);
        EXPECT_EQ(walked, expected);
    }

    void expectMadeRequests(const Source& source, unsigned wanted) {
        const unsigned requests = hasTestServers() ? wanted / 6 : wanted;  // each asks some of them some dozen times
        FilterMaker maker(source.fields, source.rows, 7, timeText);
        std::size_t rows = 0;
        for (unsigned i = 0; i < requests && !HasFailure(); ++i) {
            const ModelFilter filter = maker.filter();
            rows += select(source.rows, &filter, {}).size();
            expectRows(source, filter, maker.sort(), 1 + maker.number(30));
        }
        EXPECT_GT(rows, requests) << "filters that find nothing prove nothing";
    }

    PagerHost host;
    std::vector<Source> sources;
    std::optional<PagerClient> client;
};

TEST_F(ExactRows, EnvironmentsAreThoseThatSatisfyTheFilterInTheOrderAskedFor) {
    expectMadeRequests(sources[0], 60);
}

TEST_F(ExactRows, OperationsAreThoseThatSatisfyTheFilterInTheOrderAskedFor) {
    expectMadeRequests(sources[1], 120);
}

TEST_F(ExactRows, EventsAreThoseThatSatisfyTheFilterInTheOrderAskedFor) {
    expectMadeRequests(sources[2], 90);
}

TEST_F(ExactRows, BackupsAreThoseThatSatisfyTheFilterInTheOrderAskedFor) {
    expectMadeRequests(sources[3], 60);
}

}  // namespace
}  // namespace QOR::test
