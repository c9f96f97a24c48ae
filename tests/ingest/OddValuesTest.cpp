// What both engines can keep they take alike, and keep the same text. What one cannot keep it refuses for what it is,
// and the batch that it came with is stored.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "ingest/QORIngest.h"
#include "support/ClientContexts.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

/// Letters that no engine makes much shorter.
std::string randomText(std::size_t size) {
    std::mt19937 random(1);
    std::string text;
    while (text.size() < size)
        text += static_cast<char>((random() % 2 == 0 ? 'A' : 'a') + static_cast<char>(random() % 26));
    return text;
}

struct OddLine {
    const char* name;
    std::string line;
    std::string refusal{};  ///< what its reason holds; empty where it is taken
    std::string select{};   ///< asks for what is kept
    std::string kept{};
    bool sqliteKeeps = false;  ///< all of it, so that the refusal is PostgreSQL's alone
};

std::string operationWith(const std::string& members) {
    return R"({"kind":"operation","id":"x","time":1)" + (members.empty() ? "" : "," + members) + "}";
}
std::string eventAt(const std::string& time) {
    return R"({"kind":"event","time":)" + time + R"(,"category":"c"})";
}
std::string environmentWith(const std::string& config) {
    return R"({"kind":"environment","eid":")" + eidOf(1).toString() + R"(","config":{)" + config + "}}";
}

const std::vector<OddLine>& oddLines() {
    static const std::vector<OddLine> lines = [] {
        const std::string time = "SELECT time FROM \"vEventLog\"";
        const std::string most = randomText(2000);
        const std::string more = most + "x";
        const std::string tooLong = "has 2001 bytes; what is searched by has at most 2000 in this database";
        const auto quoted = [](const std::string& text) { return "\"" + text + "\""; };
        return std::vector<OddLine>{
            {"FirstYear", eventAt(R"("0001-01-01 00:00:00")"), "", time, "0001-01-01 00:00:00"},
            {"YearNought", eventAt(R"("0000-12-31 23:59:59")"), "is not a time", time, "0000-12-31 23:59:59", true},
            {"YearNoughtInSeconds", eventAt("-62135596801"), "is not a time", time, "0000-12-31 23:59:59", true},
            {"BeforeYearNought", eventAt("-62167219201"), "is not a time"},
            {"LastYear", eventAt(R"("9999-12-31 23:59:59")"), "", time, "9999-12-31 23:59:59"},
            {"BeyondTheLastYear", eventAt("253402300800"), "is not a time"},
            {"MostSeconds", eventAt("9223372036854775807"), "is not a time"},
            {"MoreThanSeconds", eventAt("9223372036854775808"), "is not a time"},
            {"Infinity", eventAt(R"("infinity")"), "is not a time"},
            {"BootTimeOfYearNought", environmentWith(R"("boot_time":"0000-01-01")"), "",
             "SELECT boot_time FROM \"vEnvironment\"",
             testEngine() == ASEngine::SQLite ? "0000-01-01 00:00:00" : "<null>"},

            {"NulInAnIdentifier", R"({"kind":"operation","id":"a\u0000b","time":1})", "without NUL"},
            {"NulInAText", operationWith(R"("op":"a\u0000b")"), "without NUL"},
            {"NulInAnAddress", environmentWith(R"("ip":["a\u0000b"])"), "without NUL"},
            {"NulInADocument", operationWith(R"("message":{"package":{"name":"a\u0000b","version":"1"}})"), "",
             "SELECT version FROM \"vOpLog\"", "1"},
            {"NulInANameOfADocument", operationWith(R"("message":{"a\u0000b":"1"})"), "",
             "SELECT status FROM \"vOpLog\"", "0"},
            {"NulInAConfiguration", environmentWith(R"("note":"a\u0000b")"), "", "SELECT state FROM \"vEnvironment\"",
             "0"},
            {"NulInABackupsDocument", R"({"kind":"backup","id":"x","time":1,"info":{"a":"a\u0000b"}})", "",
             "SELECT size FROM \"vBackupInfo\"", "0"},

            {"BytesThatAreNoText", operationWith("\"op\":\"a\xff\""), "encoding"},
            {"SurrogateAsBytes", operationWith("\"op\":\"a\xed\xa0\x80\""), "encoding"},
            {"HalfASurrogatePair", operationWith(R"("op":"\ud800")"), "urrogate"},
            {"OverlongForm", operationWith("\"op\":\"\xc0\xaf\""), "encoding"},
            {"BeyondTheBasicPlane", operationWith(R"("op":"\ud83d\ude00")"), "", "SELECT op FROM \"vOpLog\"",
             "\xf0\x9f\x98\x80"},
            {"NoCharacter", operationWith(R"("op":"\uffff")"), "", "SELECT op FROM \"vOpLog\"", "\xef\xbf\xbf"},
            {"ControlCharacters", operationWith(R"("op":"\u0001\t\r\n\u007f")"), "", "SELECT op FROM \"vOpLog\"",
             "\x01\t\r\n\x7f"},
            {"Backslashes", operationWith(R"("op":"\\x41 \\u0041 ' '' \" {fn now()} ? $1")"), "",
             "SELECT op FROM \"vOpLog\"", R"(\x41 \u0041 ' '' " {fn now()} ? $1)"},
            {"EmptyText", operationWith(R"("op":"")"), "", "SELECT op FROM \"vOpLog\"", ""},
            {"Blanks", operationWith(R"("op":"  x  ")"), "", "SELECT op FROM \"vOpLog\"", "  x  "},

            {"LeastStatus", operationWith(R"("status":-2147483648)"), "", "SELECT status FROM \"vOpLog\"",
             "-2147483648"},
            {"LessThanAStatus", operationWith(R"("status":-2147483649)"), "an integer of 32 bits"},
            {"LargestSize", R"({"kind":"backup","id":"x","time":1,"size":9223372036854775807})", "",
             "SELECT size FROM \"vBackupInfo\"", "9223372036854775807"},
            {"MoreThanASize", R"({"kind":"backup","id":"x","time":1,"size":9223372036854775808})", "a size"},
            {"LargestMemory", environmentWith(R"("memory":9223372036854775807)"), "",
             "SELECT memory FROM \"vEnvironment\"", "9223372036854775807"},
            {"MoreThanMemory", environmentWith(R"("memory":9223372036854775808)"), "",
             "SELECT memory FROM \"vEnvironment\"", "<null>"},
            {"MemoryThatIsNotWhole", environmentWith(R"("memory":1.5)"), "", "SELECT memory FROM \"vEnvironment\"",
             "<null>"},

            {"LongestIdentifier", R"({"kind":"operation","id":)" + quoted(most) + R"(,"time":1})", "",
             "SELECT id FROM \"vOpLog\"", most},
            {"LongerIdentifier", R"({"kind":"operation","id":)" + quoted(more) + R"(,"time":1})", tooLong,
             "SELECT id FROM \"vOpLog\"", more, true},
            {"LongestBackup", R"({"kind":"backup","id":)" + quoted(most) + R"(,"time":1})", "",
             "SELECT id FROM \"vBackupInfo\"", most},
            {"LongerBackup", R"({"kind":"backup","id":)" + quoted(more) + R"(,"time":1})", tooLong,
             "SELECT id FROM \"vBackupInfo\"", more, true},
            {"LongestCategory",
             R"({"kind":"event","time":1,"eid":")" + eidOf(1).toString() + R"(","category":)" + quoted(most) + "}", "",
             "SELECT category FROM \"vEventLog\"", most},
            {"LongerCategory", R"({"kind":"event","time":1,"category":)" + quoted(more) + "}", tooLong,
             "SELECT category FROM \"vEventLog\"", more, true},
            {"LongestHostname", environmentWith("\"hostname\":" + quoted(most)), "",
             "SELECT hostname FROM \"vEnvironment\"", most},
            {"LongerHostname", environmentWith("\"hostname\":" + quoted(more)), tooLong,
             "SELECT hostname FROM \"vEnvironment\"", more, true},
            {"LongestAddress", environmentWith("\"ip\":[" + quoted(most) + "]"), "", "SELECT ip FROM \"vEnvironment\"",
             most},
            {"LongerAddress", environmentWith("\"ip\":[" + quoted(more) + "]"), tooLong,
             "SELECT ip FROM \"vEnvironment\"", more, true},
            {"LongText", operationWith("\"op\":" + quoted(more)), "", "SELECT op FROM \"vOpLog\"", more},
        };
    }();
    return lines;
}

class OddValues : public ::testing::TestWithParam<std::size_t> {};

TEST_P(OddValues, AreTakenOrRefusedAndKeptAlikeOnEveryEngine) {
    const OddLine& odd = oddLines()[GetParam()];
    const HostDatabase database(TestTables::Own);
    database.open();
    const QORIngestResult result = QORIngest().importBatch(R"({"kind":"operation","id":"beside","time":1})"
                                                           "\n" +
                                                           odd.line + "\n");
    ASSERT_FALSE(result.failure) << result.failure->reason;
    if (!odd.refusal.empty() && !(odd.sqliteKeeps && testEngine() == ASEngine::SQLite)) {
        EXPECT_EQ(result.accepted(), 1U);
        ASSERT_EQ(result.refusedLines.size(), 1U);
        EXPECT_THAT(result.refusedLines[0].reason, ::testing::HasSubstr(odd.refusal));
        return;
    }
    EXPECT_EQ(result.accepted(), 2U) << (result.refusedLines.empty() ? "" : result.refusedLines[0].reason);
    const bool operation = odd.select.find("vOpLog") != std::string::npos;
    EXPECT_EQ(queryText(odd.select + (operation ? " WHERE id <> 'beside'" : "")), odd.kept);
}

INSTANTIATE_TEST_SUITE_P(All, OddValues, ::testing::Range(std::size_t{0}, oddLines().size()),
                         [](const auto& odd) { return oddLines()[odd.param].name; });

}  // namespace
}  // namespace QOR::test
