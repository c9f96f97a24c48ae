#include "QORCommon/QORSourcePath.h"

#include <gtest/gtest.h>

namespace QOR {
namespace {

TEST(SourcePath, BeginsWithTheFolderQorWhereverTheProjectLies) {
    EXPECT_STREQ(sourcePathText<"/home/me/qor/qor/agent/http/HttpServer.cpp">, "qor/agent/http/HttpServer");
    EXPECT_STREQ(sourcePathText<"../../qor/agent/http/HttpServer.cpp">, "qor/agent/http/HttpServer");
    EXPECT_STREQ(sourcePathText<"qor/agent/http/HttpConnection.h">, "qor/agent/http/HttpConnection");
}

TEST(SourcePath, OfAnotherProjectIsTheFilesName) {
    EXPECT_STREQ(sourcePathText<"/home/me/greeter/Greeter.cpp">, "Greeter");
    EXPECT_STREQ(sourcePathText<"Greeter.cpp">, "Greeter");
    EXPECT_STREQ(sourcePathText<"/home/me.d/Greeter">, "Greeter");
}

TEST(SourcePath, OfThisSourceHoldsNothingOfThisMachine) {
    EXPECT_STREQ(QOR_SOURCE_PATH, "QORSourcePathTest");
}

}  // namespace
}  // namespace QOR
