#include "QORCommon/QORPasswords.h"

#include <gtest/gtest.h>

namespace QOR::test {
namespace {

TEST(QORPasswords, AreNotShown) {
    EXPECT_EQ(withoutPasswords("Driver=x;UID=me;PWD=secret;Database=d"), "Driver=x;UID=me;PWD=***;Database=d");
    EXPECT_EQ(withoutPasswords("Driver=x;password = s e;p"), "Driver=x;password = ***;p");
    EXPECT_EQ(withoutPasswords("Pwd={a;b}}c};Port=1"), "Pwd=***;Port=1");
    EXPECT_EQ(withoutPasswords("pqopt={sslmode=x password='a;\\'b' port=1};Port=2"),
              "pqopt={sslmode=x password=*** port=1};Port=2");
    EXPECT_EQ(withoutPasswords("PWD=one;a=b;PASSWORD=two"), "PWD=***;a=b;PASSWORD=***");
    EXPECT_EQ(withoutPasswords("there is no command \"PWD=secret\""), "there is no command \"PWD=***");
    EXPECT_EQ(withoutPasswords("PWD="), "PWD=***");
    EXPECT_EQ(withoutPasswords("PWD={open"), "PWD=***");
}

TEST(QORPasswords, OtherTextsStayAsTheyAre) {
    for (const char* text : {"", "Driver=SQLite3;Database=a.db", "password", "xpwd=1", "a=b=c", "where pwd > 3"})
        EXPECT_EQ(withoutPasswords(text), text);
}

TEST(QORPasswords, AreOverwrittenInTheArgumentsInPlace) {
    char program[] = "PWD=program";
    char option[] = "--database=Driver=x;PWD=secret;Port=1";
    char other[] = "--socket";
    char* arguments[] = {program, option, other, nullptr};
    hidePasswords(3, arguments);
    EXPECT_STREQ(program, "PWD=program");
    EXPECT_STREQ(option, "--database=Driver=x;PWD=******;Port=1");
    EXPECT_STREQ(other, "--socket");
}

}  // namespace
}  // namespace QOR::test
