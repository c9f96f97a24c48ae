#include "QORMessage/QORTags.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QORCommon/QORException.h"

namespace {

using QOR::QORTag;
using QOR::QORTagDictionary;

QORTagDictionary& dictionary() {
    return QORTagDictionary::instance();
}

TEST(Tags, NumbersOfTheContract) {
    const struct {
        QORTag id;
        const char* name;
    } table[] = {
        {1007, "type"},       {1009, "view"},      {1018, "value"},      {1024, "size"},    {1026, "name"},
        {1040, "total"},      {1082, "cell"},      {1087, "offset"},     {1156, "source"},  {1224, "message"},
        {1259, "statistics"}, {1377, "limit"},     {1378, "descending"}, {1493, "cache"},   {1624, "env"},
        {1738, "reply"},      {1739, "row"},       {1740, "select"},     {1741, "field"},   {1742, "where"},
        {1743, "sort"},       {1744, "row_set"},   {2222, "function"},   {2225, "eq"},      {2226, "ne"},
        {2227, "gt"},         {2228, "ge"},        {2229, "lt"},         {2230, "le"},      {2231, "like"},
        {2232, "between"},    {2233, "is_null"},   {2234, "in"},         {2235, "and"},     {2236, "or"},
        {2237, "not"},        {2293, "distinct"},  {2301, "escape"},     {2401, "ordered"}, {2402, "after"},
        {2403, "count"},      {2404, "deadline"},  {2405, "exact"},      {2406, "now"},     {2407, "explain"},
        {2411, "next"},       {2412, "exactness"}, {2413, "changed"},    {2414, "most"},    {2415, "spent"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(dictionary().find(row.name), row.id) << row.name;
        EXPECT_EQ(dictionary().name(row.id), row.name);
        EXPECT_EQ(dictionary().intern(row.name), row.id);
    }
}

TEST(Tags, TheHostsOwnNames) {
    EXPECT_EQ(dictionary().find("error"), QOR::tag::error);
    EXPECT_EQ(dictionary().find("code"), QOR::tag::errorCode);
    EXPECT_EQ(dictionary().name(1000000), "error");
}

TEST(Tags, UnknownNamesAreNotInternedByAsking) {
    EXPECT_EQ(dictionary().find("never.interned"), std::nullopt);
    EXPECT_EQ(dictionary().find("never.interned"), std::nullopt);
    EXPECT_EQ(dictionary().find(""), std::nullopt);
    EXPECT_EQ(dictionary().find("SELECT"), std::nullopt);
}

TEST(Tags, NumbersWithoutANameHaveNone) {
    for (const QORTag id : {0U, 1U, 1008U, 2302U, 999999U, 4294967295U})
        EXPECT_EQ(dictionary().name(id), "") << id;
}

TEST(Tags, AnInternedNameKeepsItsNumber) {
    const QORTag id = dictionary().intern("test.some name");
    EXPECT_GE(id, QOR::tag::firstInterned + 2);
    EXPECT_EQ(dictionary().intern("test.some name"), id);
    EXPECT_EQ(dictionary().find("test.some name"), id);
    EXPECT_EQ(dictionary().name(id), "test.some name");
    EXPECT_NE(dictionary().intern("test.other"), id);
}

TEST(Tags, TheEmptyNameIsRefused) {
    EXPECT_THROW(dictionary().intern(""), QOR::QORException);
}

TEST(Tags, ThreadsAgreeOnNumbers) {
    constexpr int names = 3000;
    std::vector<std::vector<QORTag>> numbers(4);
    std::vector<std::thread> threads;
    threads.reserve(numbers.size());
    for (auto& mine : numbers) {
        threads.emplace_back([&mine] {
            for (int i = 0; i < names; ++i) {
                mine.push_back(dictionary().intern("test.thread." + std::to_string(i)));
                EXPECT_EQ(dictionary().name(mine.back()), "test.thread." + std::to_string(i));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (const auto& mine : numbers)
        EXPECT_EQ(mine, numbers[0]);
    EXPECT_EQ(std::set<QORTag>(numbers[0].begin(), numbers[0].end()).size(), static_cast<std::size_t>(names));
}

}  // namespace
