#include "QORMessage/QORMessage.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>

#include "QORMessage/QORBinaryIterator.h"
#include "Trees.h"

namespace {

using QOR::QORBinaryIterator;
using QOR::QORMessage;
using QOR::QORMessageIterator;
using QOR::QORMessageLimits;
using QOR::test::notationOf;
using QOR::test::treeOf;
namespace tag = QOR::tag;

constexpr const char* request =
    R"([1740,[[1009,"v"],[1741,"a"],[1741,[[1026,"b"]]],[1377,[[1024,"20"],[1087,"x"]]],[1259],[1741,""]]])";

/// A cursor on the select element of the request above.
class Cursor : public testing::Test {
protected:
    QORMessage message = treeOf(request);
    QORBinaryIterator it = message.root();

    void SetUp() override { ASSERT_EQ(it.firstChild(), 0); }
};

TEST_F(Cursor, KnowsItsTag) {
    EXPECT_EQ(it.curID(), tag::select);
    EXPECT_EQ(message.root().curID(), 0U);
}

TEST_F(Cursor, TestsForChildren) {
    EXPECT_EQ(it.seekPresence(tag::statistics), 0);
    EXPECT_EQ(it.seekPresence(0), 0);
    EXPECT_NE(it.seekPresence(tag::where), 0);
    EXPECT_NE(it.seekPresence(tag::size), 0) << "a child of a child is no child";
    EXPECT_EQ(it.curID(), tag::select);
}

TEST_F(Cursor, WalksSiblingsOfATag) {
    std::string seen;
    ASSERT_EQ(it.firstChild(tag::field), 0);
    do {
        seen += it.seekPresence(0) == 0 ? "node " : "leaf ";
    } while (it.nextSibling(tag::field) == 0);
    EXPECT_EQ(seen, "leaf node leaf ");
    EXPECT_EQ(it.curID(), tag::field) << "a failed move leaves the cursor where it was";
}

TEST_F(Cursor, WalksAllSiblings) {
    int count = 1;
    ASSERT_EQ(it.firstChild(), 0);
    while (it.nextSibling() == 0)
        ++count;
    EXPECT_EQ(count, 6);
}

TEST_F(Cursor, GoesUpToTheRootAndNoFurther) {
    ASSERT_EQ(it.seek(tag::limit), 0);
    ASSERT_EQ(it.seek(tag::size), 0);
    EXPECT_EQ(it.seekUp(), 0);
    EXPECT_EQ(it.curID(), tag::limit);
    EXPECT_EQ(it.seekUp(), 0);
    EXPECT_EQ(it.seekUp(), 0);
    EXPECT_EQ(it.curID(), 0U);
    EXPECT_NE(it.seekUp(), 0);
    EXPECT_NE(it.nextSibling(), 0);
}

TEST_F(Cursor, ResetGoesToTheRoot) {
    it.seek(tag::limit);
    EXPECT_EQ(it.reset(), 0);
    EXPECT_EQ(it.curID(), 0U);
}

TEST_F(Cursor, AFailedSeekStaysInPlace) {
    EXPECT_NE(it.seek(tag::where), 0);
    EXPECT_NE(it.firstChild(tag::size), 0);
    EXPECT_EQ(it.curID(), tag::select);
}

TEST_F(Cursor, FollowsPathsOfNamesAndNumbers) {
    for (const char* path : {"limit/size", "1377/1024", "limit/1024", "/limit/size/", "limit//size"}) {
        QORBinaryIterator cursor = it;
        EXPECT_EQ(cursor.seekPath(path), 0) << path;
        EXPECT_EQ(cursor.curID(), tag::size) << path;
    }
    QORBinaryIterator cursor = message.root();
    EXPECT_EQ(cursor.seekPath("select/limit/offset"), 0);
    EXPECT_EQ(cursor.curID(), tag::offset);
}

TEST_F(Cursor, NamesOfDataBelongToTheirMessage) {
    ASSERT_EQ(it.addNamed("a name of data"), 0);
    const QOR::QORTag id = it.curID();
    EXPECT_GE(id, tag::firstOfMessage);
    EXPECT_EQ(it.curName(), "a name of data");
    EXPECT_EQ(it.putValue("x"), 0);
    it.seekUp();
    ASSERT_EQ(it.addNamed("limit"), 0) << "a known name keeps its number";
    EXPECT_EQ(it.curID(), tag::limit);
    it.seekUp();
    ASSERT_EQ(it.addNamed("a name of data"), 0);
    EXPECT_EQ(it.curID(), id) << "one number a name";
    QORBinaryIterator top = message.root();
    ASSERT_EQ(top.seekPath("select/a name of data"), 0);
    EXPECT_EQ(top.curID(), id);
    EXPECT_NE(top.addNamed(""), 0);

    QORMessage other;
    EXPECT_NE(other.root().seekPath("a name of data"), 0);
    EXPECT_EQ(other.root().curName(), "");
    EXPECT_EQ(QOR::QORTagDictionary::instance().find("a name of data"), std::nullopt);
    message.clear();
    EXPECT_EQ(message.names().find("a name of data"), 0U);
    EXPECT_EQ(message.byteCount(), 0U);
}

TEST(MessageLimits, CountTheBytesOfNamesOfData) {
    QORMessageLimits limits;
    limits.bytes = 10;
    QORMessage message(limits);
    EXPECT_EQ(message.root().addNamed("123456789"), 0);
    EXPECT_EQ(message.root().addNamed("123456789"), 0);
    EXPECT_NE(message.root().addNamed("ab"), 0);
    EXPECT_EQ(message.byteCount(), 9U);
}

TEST_F(Cursor, APathThatLeadsNowhereMovesNothing) {
    for (const char* path :
         {"limit/where", "no such name", "limit/size/size", "0", "-1", "1377 ", "4294967296", "limit/0"}) {
        QORBinaryIterator cursor = it;
        EXPECT_NE(cursor.seekPath(path), 0) << path;
        EXPECT_EQ(cursor.curID(), tag::select) << path;
    }
    EXPECT_EQ(it.seekPath(""), 0);
    EXPECT_EQ(it.curID(), tag::select);
}

TEST_F(Cursor, ACloneMovesByItself) {
    const auto other = it.clone();
    ASSERT_EQ(other->seek(tag::limit), 0);
    EXPECT_EQ(it.curID(), tag::select);
    EXPECT_EQ(other->curID(), tag::limit);
    EXPECT_NE(dynamic_cast<QORBinaryIterator*>(other.get()), nullptr);
}

TEST_F(Cursor, ReadsTextsOfItsOwnAndOfChildren) {
    std::string text = "before";
    EXPECT_EQ(it.getValue(text, tag::view), 0);
    EXPECT_EQ(text, "v");
    EXPECT_EQ(it.getValue(text, tag::field), 0) << "the first of several";
    EXPECT_EQ(text, "a");
    ASSERT_EQ(it.seek(tag::view), 0);
    text.clear();
    EXPECT_EQ(it.getValue(text), 0);
    EXPECT_EQ(text, "v");
}

TEST_F(Cursor, WhatHasNoTextCannotBeRead) {
    std::string text = "before";
    std::string_view view = "before";
    int number = 7;
    EXPECT_NE(it.getValue(text), 0) << "it has children";
    EXPECT_NE(it.getValue(text, tag::statistics), 0) << "it has nothing";
    EXPECT_NE(it.getValue(text, tag::where), 0) << "it is not there";
    EXPECT_NE(it.getView(view, tag::statistics), 0);
    EXPECT_NE(it.getValue(number, tag::statistics), 0);
    EXPECT_NE(message.root().getValue(text), 0);
    EXPECT_EQ(text, "before");
    EXPECT_EQ(view, "before");
    EXPECT_EQ(number, 7);
}

TEST_F(Cursor, TheEmptyTextIsAText) {
    ASSERT_EQ(it.seek(tag::field), 0);
    it.nextSibling(tag::field);
    it.nextSibling(tag::field);
    std::string text = "before";
    EXPECT_EQ(it.getValue(text), 0);
    EXPECT_EQ(text, "");
}

TEST_F(Cursor, ReadsIntegersThatAreWhollyOne) {
    ASSERT_EQ(it.seek(tag::limit), 0);
    int number = 7;
    EXPECT_EQ(it.getValue(number, tag::size), 0);
    EXPECT_EQ(number, 20);
    EXPECT_NE(it.getValue(number, tag::offset), 0);
    EXPECT_EQ(number, 20);
}

TEST(Values, AreWrittenAsText) {
    QORMessage message;
    QORBinaryIterator it = message.root();
    ASSERT_EQ(it.addChild(tag::row), 0);
    EXPECT_EQ(it.putValue("web1", tag::value), 0);
    EXPECT_EQ(it.putInt(-2147483647 - 1, tag::size), 0);
    EXPECT_EQ(it.putInt64(std::numeric_limits<std::int64_t>::max(), tag::total), 0);
    EXPECT_EQ(it.putBinary("\0\xFF", 2, tag::cell), 0);
    EXPECT_EQ(it.curID(), tag::row);
    EXPECT_EQ(notationOf(message),
              R"([1739,[[1018,"web1"],[1024,"-2147483648"],[1040,"9223372036854775807"],[1082,{"base64":"AP8="}]]])");
    int number = 0;
    std::int64_t large = 0;
    std::string bytes;
    EXPECT_EQ(it.getValue(number, tag::size), 0);
    EXPECT_EQ(number, std::numeric_limits<int>::min());
    EXPECT_NE(it.getValue(number, tag::total), 0) << "beyond 32 bits";
    EXPECT_EQ(it.getValue(large, tag::total), 0);
    EXPECT_EQ(large, std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(it.getValue(bytes, tag::cell), 0);
    EXPECT_EQ(bytes, std::string("\0\xFF", 2));
    EXPECT_NE(it.getValue(number, tag::cell), 0) << "bytes are no number";
}

TEST(Values, AreCopied) {
    QORMessage message;
    std::string text = "first";
    message.root().putValue(text, tag::value);
    text = "other";
    EXPECT_EQ(notationOf(message), R"([1018,"first"])");
}

TEST(Values, AreReplaced) {
    QORMessage message;
    QORBinaryIterator it = message.root();
    it.addChild(tag::value);
    EXPECT_EQ(it.putValue("first"), 0);
    EXPECT_EQ(it.putInt(2), 0);
    EXPECT_EQ(notationOf(message), R"([1018,"2"])");
    EXPECT_EQ(it.putValue(""), 0);
    EXPECT_EQ(notationOf(message), R"([1018,""])");
}

TEST(Values, AndChildrenExcludeEachOther) {
    QORMessage message;
    QORBinaryIterator it = message.root();
    EXPECT_NE(it.putValue("on the root"), 0);
    it.addChild(tag::row);
    it.putValue("x");
    EXPECT_NE(it.addChild(tag::value), 0);
    EXPECT_NE(it.putValue("y", tag::value), 0);
    it.seekUp();
    it.addChild(tag::row);
    it.putValue("y", tag::value);
    EXPECT_NE(it.putValue("x"), 0);
    EXPECT_EQ(it.curID(), tag::row);
    EXPECT_EQ(notationOf(message), R"([1739,"x"],[1739,[[1018,"y"]]])");
}

TEST(Values, LargeOnesHaveBlocksOfTheirOwn) {
    QORMessage message;
    QORBinaryIterator it = message.root();
    std::vector<std::string> values;
    for (const std::size_t size : {1U, 4096U, 262144U, 262145U, 3000000U, 10U, 5000U}) {
        values.emplace_back(size, static_cast<char>('a' + values.size()));
        ASSERT_EQ(it.putValue(values.back(), tag::value), 0);
    }
    it.firstChild();
    for (const std::string& value : values) {
        std::string_view view;
        ASSERT_EQ(it.getView(view), 0);
        EXPECT_EQ(view, value);
        it.nextSibling();
    }
}

TEST(Removal, TakesAllChildrenOfATag) {
    QORMessage message = treeOf(R"([1744,[[1026,"a"],[1739,[[1018]]],[1026,"b"],[1739],[1739,"x"]]])");
    QORBinaryIterator it = message.root();
    it.firstChild();
    EXPECT_EQ(it.removeChildren(tag::row), 0);
    EXPECT_EQ(notationOf(message), R"([1744,[[1026,"a"],[1026,"b"]]])");
    EXPECT_NE(it.removeChildren(tag::row), 0);
    it.putValue("c", tag::total);
    EXPECT_EQ(notationOf(message), R"([1744,[[1026,"a"],[1026,"b"],[1040,"c"]]])");
    EXPECT_EQ(it.removeChildren(tag::name), 0);
    EXPECT_EQ(it.removeChildren(tag::total), 0);
    EXPECT_EQ(notationOf(message), "[1744]");
    EXPECT_EQ(it.putValue("now a leaf"), 0);
}

TEST(Removal, AtTheRootEmptiesTheMessage) {
    QORMessage message = treeOf(request);
    EXPECT_FALSE(message.empty());
    EXPECT_EQ(message.root().removeChildren(tag::select), 0);
    EXPECT_TRUE(message.empty());
}

TEST(Removal, GivesBackWhatCounted) {
    QORMessage message = treeOf(R"([1744,[[1026,"abc"],[1739,[[1018,"de"],[1018]]],[1739],[1040,"f"]]])");
    EXPECT_EQ(message.nodeCount(), 7U);
    EXPECT_EQ(message.byteCount(), 6U);
    QORBinaryIterator it = message.root();
    it.firstChild();
    EXPECT_EQ(it.removeChildren(tag::row), 0);
    EXPECT_EQ(message.nodeCount(), 3U);
    EXPECT_EQ(message.byteCount(), 4U);
    EXPECT_EQ(message.root().removeChildren(tag::rowSet), 0);
    EXPECT_EQ(message.nodeCount(), 0U);
    EXPECT_EQ(message.byteCount(), 0U);
}

QORMessageLimits limitsOf(std::uint32_t depth, std::size_t nodes, std::size_t bytes) {
    QORMessageLimits limits;
    limits.depth = depth;
    limits.nodes = nodes;
    limits.bytes = bytes;
    return limits;
}

TEST(Limits, OfDepth) {
    QORMessage message(limitsOf(3, 100, 100));
    QORBinaryIterator it = message.root();
    EXPECT_EQ(it.addChild(1), 0);
    EXPECT_EQ(it.addChild(2), 0);
    EXPECT_EQ(it.addChild(3), 0);
    EXPECT_NE(it.addChild(4), 0);
    EXPECT_NE(it.putValue("x", 4), 0);
    EXPECT_EQ(it.curID(), 3U);
    EXPECT_EQ(message.nodeCount(), 3U);
}

TEST(Limits, OfDepthAreSixtyFourUnlessSet) {
    QORMessage message;
    QORBinaryIterator it = message.root();
    int depth = 0;
    while (it.addChild(1) == 0)
        ++depth;
    EXPECT_EQ(depth, 64);
}

TEST(Limits, OfElements) {
    QORMessage message(limitsOf(64, 3, 100));
    QORBinaryIterator it = message.root();
    EXPECT_EQ(it.putValue("a", 1), 0);
    EXPECT_EQ(it.putValue("b", 1), 0);
    EXPECT_EQ(it.addChild(1), 0);
    EXPECT_NE(it.addChild(1), 0);
    EXPECT_NE(it.putValue("d", 1), 0);
    EXPECT_EQ(message.nodeCount(), 3U);
}

TEST(Limits, OfBytes) {
    QORMessage message(limitsOf(64, 100, 10));
    QORBinaryIterator it = message.root();
    EXPECT_EQ(it.putValue("12345", 1), 0);
    EXPECT_NE(it.putValue("123456", 1), 0);
    EXPECT_EQ(message.nodeCount(), 1U) << "no element is left behind";
    EXPECT_EQ(it.putBinary("12345", 5, 1), 0);
    EXPECT_NE(it.putInt(1, 1), 0);
    EXPECT_EQ(it.putValue("", 1), 0);
    EXPECT_EQ(message.byteCount(), 10U);
    EXPECT_EQ(notationOf(message), R"([1,"12345"],[1,{"base64":"MTIzNDU="}],[1,""])");
}

TEST(Message, IsClearedAndFilledAgain) {
    QORMessage message;
    std::string last;
    for (int round = 0; round < 5; ++round) {
        message.clear();
        EXPECT_TRUE(message.empty());
        EXPECT_EQ(message.nodeCount(), 0U);
        EXPECT_EQ(message.byteCount(), 0U);
        QORBinaryIterator it = message.root();
        it.addChild(tag::rowSet);
        for (int i = 0; i < 20000; ++i)
            it.putInt(i, tag::value);
        it.putValue(std::string(300000, 'x'), tag::name);
        const std::string text = notationOf(message);
        if (round > 0) {
            EXPECT_EQ(text, last);
        }
        last = text;
    }
}

TEST(Message, Moves) {
    QORMessage first = treeOf(request);
    QORMessage second = std::move(first);
    EXPECT_EQ(notationOf(second), request);
    first = QORMessage();
    EXPECT_TRUE(first.empty());
    second = std::move(first);
    EXPECT_TRUE(second.empty());
}

TEST(Message, DeepOnesAreDestroyedAndWrittenWithoutRecursion) {
    QORMessage message(limitsOf(65535, 100000, 100));
    QORBinaryIterator it = message.root();
    int depth = 0;
    while (it.addChild(1) == 0)
        ++depth;
    EXPECT_EQ(depth, 65535);
    const std::string text = notationOf(message);
    EXPECT_EQ(text.size(), static_cast<std::size_t>(depth) * 6 - 3) << "[1,[ ... ]] a level, [1] the last";
}

TEST(Message, ThroughTheAbstractCursor) {
    QORMessage message;
    QORBinaryIterator concrete = message.root();
    QORMessageIterator& it = concrete;
    EXPECT_EQ(it.addChild(tag::row), 0);
    EXPECT_EQ(it.putValue("x", tag::value), 0);
    EXPECT_EQ(it.seekUp(), 0);
    EXPECT_EQ(it.addChild(tag::row), 0);
    EXPECT_EQ(notationOf(message), R"([1739,[[1018,"x"]]],[1739])");
}

}  // namespace
