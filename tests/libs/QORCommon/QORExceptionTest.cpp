#include "QORCommon/QORException.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using QOR::QORException;

TEST(Exception, CarriesCodeMessageAndPlace) {
    const QORException error(400, "limit/size is absent", "qor/some/Unit", 12);
    EXPECT_EQ(error.code(), 400);
    EXPECT_EQ(error.message(), "limit/size is absent");
    EXPECT_STREQ(error.what(), "limit/size is absent");
    EXPECT_STREQ(error.sourcePath(), "qor/some/Unit");
    EXPECT_EQ(error.line(), 12);
}

TEST(Exception, WithoutAPlaceItHasAnEmptyOne) {
    EXPECT_STREQ(QORException(1, "x").sourcePath(), "");
    EXPECT_STREQ(QORException(1, "x", nullptr).sourcePath(), "");
    EXPECT_EQ(QORException(1, "x").line(), 0);
}

TEST(Exception, TheHelperThrowsIt) {
    try {
        QOR::throwException(1, "invalid view \"x\"", "qor/some/Unit", 7);
        FAIL();
    } catch (const std::exception& error) {
        const auto* const own = dynamic_cast<const QORException*>(&error);
        ASSERT_NE(own, nullptr);
        EXPECT_EQ(own->code(), 1);
        EXPECT_EQ(own->message(), "invalid view \"x\"");
        EXPECT_EQ(own->line(), 7);
    }
}

TEST(Exception, CopiesAreTheirOwn) {
    QORException copy(1, "one");
    {
        const QORException other(2, std::string(100, 'x'), "qor/some/Unit", 3);
        copy = other;
    }
    EXPECT_EQ(copy.code(), 2);
    EXPECT_EQ(copy.message(), std::string(100, 'x'));
}

}  // namespace
