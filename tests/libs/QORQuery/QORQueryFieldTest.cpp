// How output fields are spelled, alone and in lists.
#include "QORQuery/QORQueryField.h"

namespace QOR {
namespace {

TEST(QueryList, HasItemsBetweenCommasOutsideQuotes) {
    using Items = std::vector<std::string_view>;
    EXPECT_EQ(splitQueryList("a, b ,count(c)"), (Items{"a", "b", "count(c)"}));
    EXPECT_EQ(splitQueryList("\"a,b\",\"c\"\",d\""), (Items{"\"a,b\"", "\"c\"\",d\""}));
    EXPECT_EQ(splitQueryList(""), Items{""});
    EXPECT_EQ(splitQueryList("a,,b,"), (Items{"a", "", "b", ""}));
}

TEST(QueryList, QuotedNamesAreReadBackAsTheyAre) {
    for (const std::string name : {"a", "a,b", "say \"hi\"", "\"", " x ", "count(a)"})
        EXPECT_EQ(parseQueryField(quoteName(name)), (QORQueryField{name, ""})) << name;
}

}  // namespace
}  // namespace QOR
