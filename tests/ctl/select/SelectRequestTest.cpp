// From options to requests.
#include "select/SelectRequest.h"

#include <string>

#include "QORMessage/QORNotation.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

SelectOptions ask(std::vector<std::string> fields) {
    SelectOptions options;
    options.view = "vOpLog";
    options.fields = std::move(fields);
    return options;
}

std::string requestOf(const SelectOptions& options) {
    std::string json;
    writeRequest(makeSelectRequest(options, 0).envelope, json);
    return json;
}

std::string complaintOf(const SelectOptions& options) {
    try {
        makeSelectRequest(options, 0);
    } catch (const CtlError& error) {
        EXPECT_EQ(error.exit(), CtlExit::BadUsage);
        return error.what();
    }
    return "none";
}

std::vector<std::string> namesOf(const SelectOptions& options) {
    std::vector<std::string> names;
    for (const SelectRequest::Column& column : makeSelectRequest(options, 0).columns)
        names.push_back(column.name);
    return names;
}

std::string body(const std::string& children) {
    return R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vOpLog"],)" + children + "]]}";
}

TEST(SelectRequest, HoldsViewAndFields) {
    EXPECT_EQ(requestOf(ask({"time", "op"})), body(R"([1741,"time"],[1741,"op"])"));
}

TEST(SelectRequest, HoldsEveryPart) {
    SelectOptions options = ask({"op", "count(eid)"});
    options.where = "status <> 0";
    options.sort = {"op", "-count(eid)"};
    options.limit = 20;
    options.offset = 40;
    options.timeout = 5;
    options.count = options.distinct = true;
    EXPECT_EQ(
        requestOf(options),
        body(
            R"~([1741,"op"],[1741,[[2222,[[1026,"count"],[1741,"eid"]]]]],[2401],[2293],)~"
            R"~([1742,[[2226,[[1741,"status"],[1018,"0"]]]]],)~"
            R"~([1743,[[1741,"op"]]],[1743,[[1741,"count(eid)"],[1378]]],[1377,[[1024,"20"],[1087,"40"]]],[2404,"5000"],[1259])~"));
    EXPECT_EQ(namesOf(options), (std::vector<std::string>{"op", "count(eid)"}));
}

TEST(SelectRequest, OffsetAloneAsksForAllThatFollows) {
    SelectOptions options = ask({"op"});
    options.offset = 7;
    EXPECT_EQ(requestOf(options), body(R"([1741,"op"],[2401],[1377,[[1024,"2147483647"],[1087,"7"]]])"));
}

TEST(SelectRequest, FieldSpellings) {
    EXPECT_EQ(requestOf(ask({"a b", "\"count(x)\"", " avg ( \"q\"\"q\" ) ", "f(x", "Max(t)"})),
              body(R"~([1741,"a b"],[1741,"count(x)"],[1741,[[2222,[[1026,"average"],[1741,"q\"q"]]]]],)~"
                   R"~([1741,"f(x"],[1741,[[2222,[[1026,"Max"],[1741,"t"]]]]],[2401])~"));
}

TEST(SelectRequest, AsksForAnOrderWhereThereIsOne) {
    EXPECT_FALSE(makeSelectRequest(ask({"time", "op"}), 0).ordered);
    SelectOptions options = ask({"time", "op"});
    options.sort = {"time", "-op"};
    EXPECT_EQ(requestOf(options),
              body(R"([1741,"time"],[1741,"op"],[2401],[1743,[[1741,"time"]]],[1743,[[1741,"op"],[1378]]])"));
    options = ask({"op", "eid", "op"});
    EXPECT_EQ(requestOf(options), body(R"([1741,"op"],[1741,"eid"],[1741,"op"],[2401])"));
    EXPECT_EQ(namesOf(options), (std::vector<std::string>{"op", "eid", "op"}));
    EXPECT_EQ(namesOf(ask({"eid", "count(eid)", "AVG(size)"})),
              (std::vector<std::string>{"eid", "count(eid)", "average(size)"}));
}

TEST(SelectRequest, ClientIsNamedByItsEnvironments) {
    SelectOptions options = ask({"op"});
    options.client = {"{6F9619FF-8B86-D011-B42D-00CF4FC964FF}"};
    EXPECT_TRUE(
        requestOf(options).ends_with(R"("client":{"fullAccess":false,"sids":[{"principalId":0,"principalType":1,)"
                                     R"("eid":"6f9619ff-8b86-d011-b42d-00cf4fc964ff"}]}})"));
    options.client = {"none"};
    EXPECT_TRUE(requestOf(options).ends_with(R"("client":{"fullAccess":false,"sids":[]}})"));
}

TEST(SelectRequest, WhatCannotBeMeantIsRefused) {
    EXPECT_EQ(complaintOf(ask({"count(*)"})), "\"count(*)\": an aggregate needs a column, for example count(eid)");
    EXPECT_EQ(complaintOf(ask({""})), "a field has no name: \"\"");
    EXPECT_EQ(complaintOf(ask({"sum()"})), "a field has no name: \"sum()\"");

    SelectOptions options = ask({"op"});
    options.limit = -1;
    EXPECT_EQ(complaintOf(options), "--limit must lie between 0 and 2147483647");
    options = ask({"op"});
    options.offset = 2147483648;
    EXPECT_EQ(complaintOf(options), "--offset must lie between 0 and 2147483647");
    options = ask({"op"});
    options.sort = {"-"};
    EXPECT_EQ(complaintOf(options), "a sort key has no name");
    options.sort = {"op", "-op"};
    EXPECT_EQ(complaintOf(options), "the sort key \"op\" is given twice");
    options.sort = {"max(time)"};
    EXPECT_EQ(complaintOf(options), "sorting by \"max(time)\" needs it among the fields (-f)");
    options = ask({"op"});
    options.client = {"none", "none"};
    EXPECT_EQ(complaintOf(options),
              "--client: \"none\" is not the GUID of an environment (\"none\" alone means no identity)");
    options = ask({"op"});
    options.where = "op =";
    EXPECT_EQ(complaintOf(options),
              "--where: expected a column or a value, found the end of the text at character 5\n  op =\n      ^\n");
}

TEST(SelectRequest, TextsThatAreNotUtf8TravelUnharmed) {
    SelectOptions options = ask({"op"});
    options.where = "op = '\xFF'";
    std::string json;
    writeRequest(makeSelectRequest(options, 0).envelope, json);
    EXPECT_NE(json.find(R"([1018,{"base64":"/w=="}])"), std::string::npos);
}

}  // namespace
}  // namespace QOR
