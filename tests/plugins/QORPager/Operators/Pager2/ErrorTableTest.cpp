#include <gtest/gtest.h>

#include "QORPager/Operators/Pager/QORPagerErrors.h"

namespace QOR {
namespace {

TEST(PagerErrors, AreTheWholeTableWithItsTerminator) {
    const std::pair<int, const char*> expected[] = {
        {0, ""},
        {3101, "Pager error: database error \"%s\""},
        {3111, "Pager error: unknown field \"%s\""},
        {3151, "Pager parsing error: %s"},
        {3152, "Pager evaluating error: %s"},
    };
    ASSERT_EQ(PagerErrors.size(), std::size(expected));
    for (const auto& [code, format] : expected) {
        ASSERT_EQ(PagerErrors.count(code), 1U) << code;
        EXPECT_STREQ(PagerErrors.at(code), format);
    }
}

}  // namespace
}  // namespace QOR
