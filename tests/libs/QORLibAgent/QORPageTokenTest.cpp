// Tokens of pages: what is sealed is opened as it was, by whoever has the database, and nothing else is.
#include "QORLibAgent/QORPageToken.h"

#include <limits>
#include <set>
#include <thread>

#include "LogDatabase.h"
#include "QORCommon/QORException.h"
#include "QORMessage/QORNotation.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

using namespace std::string_literals;

constexpr const char* refusal = "the page token is not one of this database's";

QORPageToken anyToken() {
    return {"question", 1700000000, 42, -1, {"web1", std::nullopt, ""s, "\0\xff'"s, std::string(2000, 'x')}, 17};
}

std::string refusalOf(std::string_view text) {
    try {
        openPageToken(text);
    } catch (const QORException& exception) {
        EXPECT_EQ(exception.code(), 400);
        return exception.message();
    }
    return "";
}

class PageToken : public LogDatabaseTest {};

TEST_F(PageToken, IsOpenedAsItWasSealed) {
    constexpr auto smallest = std::numeric_limits<std::int64_t>::min();
    constexpr auto largest = std::numeric_limits<std::int64_t>::max();
    constexpr auto most = std::numeric_limits<std::uint64_t>::max();
    for (const QORPageToken& token :
         {QORPageToken(), anyToken(), QORPageToken{"q", smallest, most, largest, {std::nullopt}, smallest},
          QORPageToken{"", largest, 0, smallest, {""}, largest},
          QORPageToken{std::string(300, 'q'), -1, 127, 128, {}, 0}})
        EXPECT_EQ(openPageToken(sealPageToken(token)), token);
}

TEST_F(PageToken, IsATextThatAnAddressCanHold) {
    for (int i = 0; i < 40; ++i) {
        const std::string text = sealPageToken(anyToken());
        EXPECT_EQ(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
                  std::string::npos)
            << text;
    }
    QORPageToken large = anyToken();
    large.key = {std::string(mostPageKeyBytes, 'x')};
    EXPECT_LT(sealPageToken(large).size(), 3000U);
}

TEST_F(PageToken, ShowsNothingOfWhatItHolds) {
    std::set<std::string> texts;
    std::set<std::size_t> sizes;
    for (const std::uint64_t change : {0ULL, 1ULL, 1000ULL, 1ULL << 60U}) {
        QORPageToken token = anyToken();
        token.change = change;
        const std::string text = sealPageToken(token);
        sizes.insert(text.size());
        for (const std::string& same : {text, sealPageToken(token)})
            EXPECT_TRUE(texts.insert(same.substr(0, 20)).second) << same;
    }
    EXPECT_EQ(sizes.size(), 1U) << "how many changes there were shows in the length";
}

TEST_F(PageToken, IsRefusedWhenAnythingOfItChanged) {
    const std::string text = sealPageToken({"question", 7, 8, 9, {"key"}, 10});
    ASSERT_EQ(refusalOf(text), "");
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string other = text;
        other[i] = other[i] == 'A' ? 'B' : 'A';
        EXPECT_EQ(refusalOf(other), refusal) << i;
        EXPECT_EQ(refusalOf(text.substr(0, i)), refusal) << i;
        EXPECT_EQ(refusalOf(text.substr(0, i) + '\n' + text.substr(i)), refusal) << i;
    }
    for (const std::string& other : {text + "A", text + "=", text + "====", "A" + text, " " + text})
        EXPECT_EQ(refusalOf(other), refusal) << other;
}

TEST_F(PageToken, NoOtherTextIsOne) {
    for (const std::string& text :
         {""s, "A"s, "AAAA"s, "=="s, "\0"s, "\xff\xff"s, "+/+/"s, std::string(100000, 'A'), std::string(47, '_')})
        EXPECT_EQ(refusalOf(text), refusal) << text.substr(0, 20);
}

TEST_F(PageToken, OfADatabaseHoldsAtEachProgramThatOpensItAndAtNoOther) {
    const std::string text = sealPageToken(anyToken());
    open();
    EXPECT_EQ(openPageToken(text), anyToken()) << "after a restart";
    ASDatabaseOptions readOnly = options();
    readOnly.readOnly = true;
    QORDBSchema::open(readOnly, QORSchemaMode::Reading);
    EXPECT_EQ(openPageToken(text), anyToken()) << "by one that only reads";
    const TestDatabase other;
    QORDBSchema::open({.connectionString = other.connectionString()}, QORSchemaMode::Own);
    EXPECT_EQ(refusalOf(text), refusal);
}

TEST_F(PageToken, OfADatabaseWithoutAKeyHoldsInThisProcess) {
    for (const char* sql : {"DELETE FROM qor_secret", "DROP TABLE qor_secret"}) {
        const std::string before = sealPageToken(anyToken());
        runSql(sql);
        EXPECT_EQ(openPageToken(before), anyToken()) << "the key is known";
        QORRdbms::instance().configure(options());
        const std::string text = sealPageToken(anyToken());
        EXPECT_EQ(openPageToken(text), anyToken());
        QORRdbms::instance().configure(options());
        EXPECT_EQ(openPageToken(text), anyToken());
    }
}

TEST_F(PageToken, IsReadByManyThreadsAtOnce) {
    const std::string text = sealPageToken(anyToken());
    QORRdbms::instance().configure(options());
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { EXPECT_EQ(openPageToken(sealPageToken(openPageToken(text))), anyToken()); });
    for (std::thread& thread : threads)
        thread.join();
}

std::string digestOf(std::string_view notation) {
    QORMessage message;
    readElement(notation, message);
    QORBinaryIterator select = message.root();
    EXPECT_EQ(select.firstChild(tag::select), 0);
    return questionDigest(select);
}

TEST(Question, IsTheSameHoweverItsPagesAreAskedFor) {
    const std::string digest = digestOf(R"([1740,[[1009,"vOpLog"],[1741,"id"]]])");
    for (const char* same : {
             R"([1740,[[1009,"vOpLog"],[1741,"id"],[1377,[[1024,"20"],[1087,"3"]]]]])",
             R"([1740,[[2402,"x"],[1009,"vOpLog"],[2403,"exact"],[1741,"id"],[2404,"100"],[2406,"7"],[1259]]])",
         })
        EXPECT_EQ(digestOf(same), digest) << same;
}

TEST(Question, IsAnotherWhereAnythingElseDiffers) {
    std::set<std::string> digests;
    for (const char* one : {
             R"([1740,[[1009,"vOpLog"],[1741,"id"]]])",
             R"([1740,[[1009,"vOpLog"],[1741,"op"]]])",
             R"([1740,[[1009,"vOpLogid"],[1741,""]]])",
             R"([1740,[[1009,"vOpLog"],[1741]]])",
             R"([1740,[[1009,"vOpLog"],[1741,"id"],[2401]]])",
             R"([1740,[[1009,"vOpLog"],[1741,"id"],[1743,[[1741,"id"]]]]])",
             R"([1740,[[1009,"vOpLog"],[1741,"id"],[1743,[[1741,"id"],[1378]]]]])",
             R"([1740,[[1009,"vOpLog"],[1741,"id"],[1743,[[1741,"id"]]],[1378]]])",
             R"([1740,[[1009,"vOpLog"],[1741,"id"],[1742,[[2234,[[1741,"id"],[1740,[[1377,[[1024,"1"]]]]]]]]]]])",
             R"([1740,[[1009,"vOpLog"],[1741,"id"],[1742,[[2234,[[1741,"id"],[1740,[[1377,[[1024,"2"]]]]]]]]]]])",
         })
        EXPECT_TRUE(digests.insert(digestOf(one)).second) << one;
}

}  // namespace
}  // namespace QOR::test
