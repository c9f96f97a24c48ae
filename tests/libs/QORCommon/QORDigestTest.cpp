#include "QORCommon/QORDigest.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace QOR::test
