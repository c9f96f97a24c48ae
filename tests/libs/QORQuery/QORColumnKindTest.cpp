// What the values of an answer's column are.
#include "QORQuery/QORColumnKind.h"

namespace QOR {
namespace {

TEST(ColumnKind, IsThatOfTheDeclaredTypeWhateverItsLengthAndCase) {
    EXPECT_EQ(columnKindOf("nvarchar(64)"), QORColumnKind::Text);
    EXPECT_EQ(columnKindOf("DateTime"), QORColumnKind::Time);
    EXPECT_EQ(columnKindOf("decimal(10,2)"), QORColumnKind::Number);
    EXPECT_EQ(columnKindOf("uniqueidentifier"), QORColumnKind::Identifier);
    EXPECT_EQ(columnKindOf("text"), QORColumnKind::Bytes);
    EXPECT_EQ(columnKindOf("geometry"), QORColumnKind::Text);
    EXPECT_EQ(columnKindOf(""), QORColumnKind::Text);
}

TEST(ColumnKind, OfAggregatesIsThatOfTheirResults) {
    const auto kind = [](const char* field, const char* type) { return columnKindOf(parseQueryField(field), type); };
    EXPECT_EQ(kind("count(op)", "nvarchar"), QORColumnKind::Integer);
    EXPECT_EQ(kind("avg(size)", "bigint"), QORColumnKind::Number);
    EXPECT_EQ(kind("average(size)", "bigint"), QORColumnKind::Number);
    EXPECT_EQ(kind("SUM(size)", "bigint"), QORColumnKind::Integer);
    EXPECT_EQ(kind("max(time)", "datetime"), QORColumnKind::Number);
    EXPECT_EQ(kind("min(load)", "double"), QORColumnKind::Number);
    EXPECT_EQ(kind("size", "bigint"), QORColumnKind::Integer);
}

TEST(ColumnKind, WordsAreThoseOfTheInterface) {
    EXPECT_EQ(wordOf(QORColumnKind::Text), "text");
    EXPECT_EQ(wordOf(QORColumnKind::Integer), "integer");
    EXPECT_EQ(wordOf(QORColumnKind::Number), "number");
    EXPECT_EQ(wordOf(QORColumnKind::Time), "time");
    EXPECT_EQ(wordOf(QORColumnKind::Identifier), "guid");
    EXPECT_EQ(wordOf(QORColumnKind::Bytes), "bytes");
}

}  // namespace
}  // namespace QOR
