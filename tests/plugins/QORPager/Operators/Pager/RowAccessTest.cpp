// A client without full access has the full answer less the records that it may not see: rows, pages and counts.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "plugins/QORPager/Operators/Pager/PagerHost.h"

namespace QOR::test {
namespace {

constexpr unsigned environments = 6;

std::string guid(unsigned number) {
    return "eeeeeeee-0000-4000-8000-00000000000" + std::to_string(number);
}

class RowAccess : public ::testing::Test {
protected:
    RowAccess() : m_random(20240501) {}

    void SetUp() override {
        host.useShippedVocabulary();
        host.import(records());
    }

    unsigned pick(unsigned below) { return static_cast<unsigned>(m_random() % below); }
    std::string time() { return std::to_string(1700000000 + (pick(3) == 0 ? 7 : pick(100000))); }

    /// Belongs to one of the environments or to none, and is known by its name.
    std::string owner(const std::string& name) {
        const unsigned number = pick(environments + 1);
        m_owners[name] = number;
        return number == 0 ? std::string() : R"(,"eid":")" + guid(number) + "\"";
    }
    std::string records() {
        std::string lines;
        for (unsigned i = 0; i < 900; ++i) {
            const std::string id = "o" + std::to_string(i);
            lines += R"({"kind":"operation","id":")" + id + R"(","time":)" + time() + owner(id) + R"(,"eids":[)";
            const unsigned first = pick(environments);
            const unsigned touched = pick(4);
            for (unsigned j = 0; j < touched; ++j)
                lines += (j == 0 ? "\"" : ",\"") + guid(1 + (first + j) % environments) + "\"";
            lines += "]}\n";
        }
        for (unsigned i = 0; i < 500; ++i) {
            const std::string source = "e" + std::to_string(i);
            lines += R"({"kind":"event","source":")" + source + R"(","time":)" + time() + owner(source) +
                     R"(,"category":")" + (pick(2) == 0 ? "env_status" : "resource_alert") + "\"}\n";
        }
        for (unsigned i = 0; i < 80; ++i) {
            const std::string id = "b" + std::to_string(i);
            lines += R"({"kind":"backup","id":")" + id + R"(","time":)" + time() + owner(id) + R"(,"name":"n)" +
                     std::to_string(pick(9)) + R"(","hostname":"h","info":{"veid":")" + std::to_string(pick(9)) +
                     "\"}}\n";
        }
        return lines;
    }

    Answer ask(const std::string& field, const std::string& where, const std::string& more,
               const QORClientContextPtr& as) {
        Ask request{{field}, {}, more + counts};
        if (!where.empty()) request.where = where;
        return readAnswer(PagerClient().ask(request.body(), as));
    }

    /// The client that stands for some environments, and what it should have of the full answer.
    void expectFiltered(const std::string& field, const std::string& where, bool paged) {
        std::vector<QORLocalSID> sids;
        std::set<unsigned> owners;
        for (unsigned number = 1; number <= environments; ++number) {
            if (pick(3) != 0) continue;
            owners.insert(number);
            sids.emplace_back(0, 1 + static_cast<int>(pick(2)), QOREID(eid(guid(number).c_str())));
        }
        std::vector<std::vector<std::string>> visible;
        for (const auto& row : ask(field, where, "", fullAccess()).rows) {
            if (owners.contains(m_owners.at(row.front()))) visible.push_back(row);
        }
        const auto total = static_cast<std::int64_t>(visible.size());
        const int size = paged ? static_cast<int>(pick(60)) : 0;
        const int offset = paged ? static_cast<int>(pick(static_cast<unsigned>(total) + 20)) : 0;
        const std::int64_t end = size > 0 ? std::min<std::int64_t>(total, offset + size) : total;
        const Answer answer = ask(field, where, paged ? limit(size, offset) : "", restricted(sids));
        EXPECT_EQ(answer.error, "");
        EXPECT_EQ(answer.counts, (std::pair(end - offset, total)));
        const auto from = visible.begin() + std::min<std::int64_t>(offset, total);
        EXPECT_EQ(answer.rows,
                  (std::vector<std::vector<std::string>>(
                      from, visible.begin() + std::max<std::int64_t>(std::min<std::int64_t>(offset, total), end))));
    }

    std::string span(const std::string& field) {
        std::string where;
        if (pick(2) == 0) where += " and " + field + " >= \"" + time() + "\"";
        if (pick(2) == 0) where += " and " + field + " <= \"" + time() + "\"";
        return where;
    }

    PagerHost host;
    std::map<std::string, unsigned> m_owners;
    std::mt19937 m_random;
};

TEST_F(RowAccess, OperationsAreTheFullAnswerLessThoseOfOthers) {
    for (unsigned i = 0; i < 150 && !HasFailure(); ++i) {
        std::string where =
            pick(3) == 0 ? "1=1" : "pager.op_log.parameter.env.eid = '" + guid(1 + pick(environments)) + "'";
        where += span("pager.op_log.time");
        SCOPED_TRACE(where);
        expectFiltered("pager.op_log.id", where, true);
    }
}

TEST_F(RowAccess, EventsAreTheFullAnswerLessThoseOfOthers) {
    for (unsigned i = 0; i < 120 && !HasFailure(); ++i) {
        const bool both = pick(3) == 0;
        std::string where = "(pager.event_log.category='resource_alert'";
        where += both ? " or pager.event_log.category='env_status')" : ")";
        if (pick(2) == 0) where += " and pager.event_log.parameter.env.eid = '" + guid(1 + pick(environments)) + "'";
        where += span("pager.event_log.time");
        SCOPED_TRACE(where);
        expectFiltered("pager.event_log.source", where, !both);
    }
}

TEST_F(RowAccess, BackupsAreTheFullAnswerLessThoseOfOthers) {
    for (unsigned i = 0; i < 60 && !HasFailure(); ++i) {
        const std::string number = std::to_string(pick(9));
        const std::string where = std::array<std::string, 4>{
            "pager.backup.info.name like 'n" + number + "'", "pager.backup.info.name like '%'",
            "pager.backup.info.veid = " + number, "pager.backup.time >= 0 and pager.backup.time <= " + time()}[pick(4)];
        SCOPED_TRACE(where);
        expectFiltered("pager.backup.id", where, false);
    }
}

}  // namespace
}  // namespace QOR::test
