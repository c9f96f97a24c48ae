#include "QORPager/QORExpressionOperand.h"

#include <gtest/gtest.h>

#include <string>

namespace QOR {
namespace {

using enum TTextCase;

std::string settled(TTextBuffer& buffer) {
    buffer.settle();
    return std::string(buffer.view());
}

TEST(TextBuffer, PartsKeepTheirCasesAtBothEnds) {
    TTextBuffer buffer;
    buffer.assign("Mid", AsIs);
    buffer.prepend("Er", Lower);
    buffer.prepend("Low", Lower);
    buffer.append("Up", Upper);
    buffer.append("per", Upper);
    EXPECT_EQ(buffer.view(), "LowErMidUpper");
    EXPECT_EQ(settled(buffer), "lowerMidUPPER");
    buffer.append("As", AsIs);
    EXPECT_EQ(settled(buffer), "lowerMidUPPERAs");
}

TEST(TextBuffer, NothingAddedChangesNothing) {
    TTextBuffer buffer;
    buffer.setCase(Upper);
    EXPECT_EQ(settled(buffer), "");
    buffer.append("", Upper);
    buffer.prepend("", Lower);
    EXPECT_EQ(settled(buffer), "");
    buffer.prepend("a", Upper);
    buffer.append("", Lower);
    buffer.prepend("", Lower);
    EXPECT_EQ(settled(buffer), "A");
}

TEST(TextBuffer, AnothersPartsComeWithTheirCases) {
    TTextBuffer other;
    other.assign("Ab", Upper);
    other.append("Cd", Lower);
    TTextBuffer after;
    after.assign("x", Upper);
    after.append(other);
    EXPECT_EQ(settled(after), "XABcd");
    TTextBuffer before;
    before.assign("x", Upper);
    before.prepend(other);
    EXPECT_EQ(settled(before), "ABcdX");
}

TEST(TextBuffer, TheLastCaseOfTheWholeTextWins) {
    TTextBuffer buffer;
    buffer.assign("Ab", Lower);
    buffer.append("Cd", AsIs);
    buffer.setCase(AsIs);
    buffer.setCase(Upper);
    EXPECT_EQ(settled(buffer), "ABCD");
}

}  // namespace
}  // namespace QOR
