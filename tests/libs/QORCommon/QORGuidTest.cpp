#include "QORCommon/QORGuid.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <unordered_set>

namespace {

using QOR::QOREID;
using QOR::QORGUIDBase;

constexpr const char* text = "6ba7b810-9dad-11d1-80b4-00c04fd430c8";

TEST(Guid, IsWrittenInLowerCaseWithHyphens) {
    EXPECT_EQ(QORGUIDBase::parse("6BA7B810-9DAD-11D1-80B4-00C04FD430C8")->toString(), text);
    EXPECT_EQ(QORGUIDBase::parse("{6ba7b810-9dad-11D1-80b4-00c04fd430c8}")->toString(), text);
    EXPECT_EQ(QORGUIDBase::parse(text)->toString(), text);
}

TEST(Guid, AnythingElseIsRefused) {
    const std::string good = text;
    for (const std::string& bad :
         {std::string(), good.substr(1), good + "0", "{" + good, good + "}", "{{" + good + "}}", "(" + good + ")",
          " " + good, good + " ", std::string("6ba7b8109dad11d180b400c04fd430c8"),
          std::string("6ba7b810-9dad-11d1-80b4-00c04fd430cg"), std::string("6ba7b810-9dad-11d1-80b400-c04fd430c8"),
          std::string("6ba7b810_9dad_11d1_80b4_00c04fd430c8")}) {
        EXPECT_FALSE(QORGUIDBase::parse(bad).has_value()) << bad;
    }
}

TEST(Guid, EveryPlaceIsChecked) {
    for (std::size_t i = 0; i < std::string(text).size(); ++i) {
        std::string bad = text;
        bad[i] = 'x';
        EXPECT_FALSE(QORGUIDBase::parse(bad).has_value()) << bad;
    }
}

TEST(Guid, TheNilGuidIsTheInvalidOne) {
    EXPECT_FALSE(QOREID().isValid());
    EXPECT_EQ(QOREID().toString(), "00000000-0000-0000-0000-000000000000");
    EXPECT_FALSE(QORGUIDBase::parse("00000000-0000-0000-0000-000000000000")->isValid());
    EXPECT_TRUE(QORGUIDBase::parse(text)->isValid());
}

TEST(Guid, AFailedFromStringLeavesTheNilGuid) {
    QORGUIDBase guid;
    EXPECT_TRUE(guid.fromString(text));
    EXPECT_EQ(guid.toString(), text);
    EXPECT_FALSE(guid.fromString("nonsense"));
    EXPECT_FALSE(guid.isValid());
}

TEST(Guid, OrderIsTheOrderOfTheTexts) {
    std::set<QOREID> ids;
    std::set<std::string> texts;
    for (int i = 0; i < 200; ++i) {
        const QOREID id{QORGUIDBase::random()};
        ids.insert(id);
        texts.insert(id.toString());
    }
    auto expected = texts.begin();
    for (const QOREID& id : ids)
        EXPECT_EQ(id.toString(), *expected++);
}

TEST(Guid, RandomOnesDifferAndSayTheirVersion) {
    std::unordered_set<QOREID> seen;
    for (int i = 0; i < 1000; ++i) {
        const QOREID id{QORGUIDBase::random()};
        EXPECT_EQ(id.toString()[14], '4');
        EXPECT_NE(std::string("89ab").find(id.toString()[19]), std::string::npos);
        EXPECT_TRUE(seen.insert(id).second);
    }
}

TEST(Guid, OneFromANameIsTheSameEachTime) {
    const QORGUIDBase space = *QORGUIDBase::parse(text);
    EXPECT_EQ(QORGUIDBase::fromName(space, "www.example.org").toString(), "74738ff5-5367-5958-9aee-98fffdcd1876");
    EXPECT_EQ(QORGUIDBase::fromName(space, "a"), QORGUIDBase::fromName(space, "a"));
    EXPECT_NE(QORGUIDBase::fromName(space, "a"), QORGUIDBase::fromName(space, "b"));
    EXPECT_NE(QORGUIDBase::fromName(space, "a"), QORGUIDBase::fromName(QORGUIDBase(), "a"));
}

}  // namespace
