#include "QORCommon/QORDigest.h"

#include <gtest/gtest.h>

#include "QORCommon/QORSeal.h"

namespace QOR::test {
namespace {

TEST(QORDigest, IsSha256InLowerCase) {
    EXPECT_EQ(QORDigest().hex(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(QORDigest().add("abc").hex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(QORDigest, DoesNotDependOnThePiecesThatBytesComeIn) {
    const std::string bytes("a\0b", 3);
    EXPECT_EQ(QORDigest().add("a").add("").add(std::string_view("\0b", 2)).hex(), QORDigest().add(bytes).hex());
    EXPECT_NE(QORDigest().add("ab").hex(), QORDigest().add(bytes).hex());
}

TEST(KeyedDigest, IsHmacSha256) {
    EXPECT_EQ(hexOf(keyedDigest("Jefe", "what do ya want for nothing?")),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(hexOf(keyedDigest("", "")), "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
}

TEST(KeyedDigest, IsComparedWhole) {
    EXPECT_TRUE(isSameDigest("", ""));
    EXPECT_TRUE(isSameDigest("abc", "abc"));
    EXPECT_FALSE(isSameDigest("abc", "abd"));
    EXPECT_FALSE(isSameDigest("abc", "ab"));
}

TEST(RandomBytes, AreAsManyAsWantedAndOthersEachTime) {
    EXPECT_EQ(randomBytes(0), "");
    EXPECT_EQ(randomBytes(32).size(), 32U);
    EXPECT_NE(randomBytes(32), randomBytes(32));
    EXPECT_EQ(hexOf(std::string_view("\x00\x7f\xff", 3)), "007fff");
}

TEST(Seal, IsOpenedWithItsSecretAlone) {
    for (const std::string& bytes : {std::string(), std::string("a\0b", 3), std::string(5000, 'x')}) {
        const std::string sealed = sealBytes("secret", bytes);
        EXPECT_EQ(sealed.size(), bytes.size() + 32);
        EXPECT_NE(sealed, sealBytes("secret", bytes));
        EXPECT_EQ(openBytes("secret", sealed), bytes);
        EXPECT_EQ(openBytes("Secret", sealed), std::nullopt);
        EXPECT_EQ(openBytes("secret", sealed + 'x'), std::nullopt);
        for (std::size_t i = 0; i < sealed.size(); i += 1 + sealed.size() / 50) {
            std::string other = sealed;
            other[i] = static_cast<char>(other[i] ^ 1);
            EXPECT_EQ(openBytes("secret", other), std::nullopt) << i;
            EXPECT_EQ(openBytes("secret", sealed.substr(0, i)), std::nullopt) << i;
        }
    }
}

TEST(Seal, WhatWasNotOpenedLeavesNothingBehindForTheNext) {
    const std::string sealed = sealBytes("secret", "bytes");
    std::string other = sealed;
    other.back() = static_cast<char>(other.back() ^ 1);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(openBytes("secret", other), std::nullopt);
        const std::string again = sealBytes("secret", "bytes");
        EXPECT_EQ(openBytes("Secret", again), std::nullopt);
        EXPECT_EQ(openBytes("secret", again), "bytes");
        EXPECT_EQ(openBytes("secret", sealed), "bytes");
    }
}

}  // namespace
}  // namespace QOR::test
