// Answers read as they arrive.
#include "answer/AnswerReader.h"

#include <algorithm>
#include <string>
#include <vector>

#include "process/CtlError.h"

namespace QOR {
namespace {

/// An answer in pieces of a given size.
class PieceSource final : public AnswerSource {
public:
    PieceSource(std::string text, std::size_t size) : m_text(std::move(text)), m_size(size) {}
    std::string_view read() override {
        const std::string_view piece = std::string_view(m_text).substr(m_at, m_size);
        m_at += piece.size();
        m_piece = piece;  // a copy of its own, so that reading beyond it is seen
        return m_piece;
    }

private:
    std::string m_text;
    std::string m_piece;
    std::size_t m_size;
    std::size_t m_at = 0;
};

/// What a sink was told, as text.
class Record final : public RowSink {
public:
    void begin(std::span<const std::string> names) override {
        for (const std::string& name : names)
            text += name + " ";
        text += "|";
    }
    void row(std::span<const Cell> cells) override {
        for (const Cell& cell : cells) {
            constexpr const char* marks[] = {"null", "", "b:"};
            text += std::string(" ") + marks[static_cast<int>(cell.kind)] + std::string(cell.bytes);
        }
        text += ";";
    }
    void end(const std::optional<RowCounts>& counts) override {
        if (counts) text += " " + std::to_string(counts->rows) + "/" + std::to_string(counts->total);
        text += " end";
    }
    std::string text;
};

const std::string answer =
    R"({"response":[[1744,[[1026,"a"],[1026,"b"],[1739,[[1018,"1"],[1018,"x\"y"]]],)"
    R"([1739,[[1018],[1018,{"base64":"AP8="}]]],[1739,[[1018,""],[1018,"z"]]],[1259,"3"],[1040,"400"]]]]})";
const std::string told = std::string("a b | 1 x\"y; null b:") + std::string("\0\xFF", 2) + ";  z; 3/400 end";

TEST(AnswerReader, HandsRowsOnHoweverTheAnswerIsCut) {
    for (const std::size_t size : {1UL, 2UL, 3UL, 7UL, 1000UL}) {
        PieceSource source(answer, size);
        Record record;
        EXPECT_FALSE(readAnswer(source, record));
        EXPECT_EQ(record.text, told) << size;
    }
}

TEST(AnswerReader, ReturnsTheErrorOfAnAnswer) {
    TextSource source(R"({"response":[],"error":{"code":400,"message":"select is absent"}})");
    Record record;
    const auto error = readAnswer(source, record);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 400);
    EXPECT_EQ(error->message, "select is absent");
    EXPECT_EQ(record.text, "");
}

TEST(AnswerReader, AnEmptyRowSetHasItsNames) {
    TextSource source(R"({"response":[[1744,[[1026,"a"]]]]})");
    Record record;
    EXPECT_FALSE(readAnswer(source, record));
    EXPECT_EQ(record.text, "a | end");
}

TEST(AnswerReader, OtherElementsArePassedOver) {
    TextSource source(R"({"response":[[5,[[1739,[[1018,"no"]]]]],[6,"x"],[7],[1744,[[1026,"a"],[9,[[8],[8,"t"]]]]]]})");
    Record record;
    EXPECT_FALSE(readAnswer(source, record));
    EXPECT_EQ(record.text, "a | end");
}

TEST(AnswerReader, TellsABoundFromATotalAndWhetherAPageFollows) {
    const auto read = [](const std::string& rest, bool& hasNext) {
        TextSource source(R"({"response":[[1744,[[1026,"a"],[1259,"3"],[1040,"400"])" + rest + "]]]}");
        struct : RowSink {
            void begin(std::span<const std::string>) override {}
            void row(std::span<const Cell>) override {}
            void end(const std::optional<RowCounts>& given) override { text = describeCounts(given.value()); }
            std::string text;
        } sink;
        EXPECT_FALSE(readAnswer(source, sink, &hasNext));
        return sink.text;
    };
    bool hasNext = true;
    EXPECT_EQ(read(R"(,[2412,"exact"],[2411])", hasNext), "3 of 400 rows");
    EXPECT_FALSE(hasNext);
    EXPECT_EQ(read(R"(,[2412,"at_least"],[2411,"token"],[2413,"false"])", hasNext), "3 of at least 400 rows");
    EXPECT_TRUE(hasNext);
    EXPECT_EQ(read("", hasNext), "3 of 400 rows");
    EXPECT_FALSE(hasNext);
}

TEST(AnswerReader, WhatIsNoAnswerIsRefusedWhereverItEnds) {
    for (std::size_t size = 0; size < answer.size(); ++size) {
        TextSource source(answer.substr(0, size));
        Record record;
        EXPECT_THROW(readAnswer(source, record), CtlError) << size;
    }
    for (const char* text : {"[]", "{}x", R"({"other":1})", R"({"response":5})", R"({"response":[[1744,5]]})",
                             R"({"response":[[-1]]})", R"({"response":[["a"]]})", R"({"response":[[1,"a","b"]]})",
                             R"({"response":[[1,{"base64":"?"}]]})", "<html>"}) {
        TextSource source(text);
        Record record;
        EXPECT_THROW(readAnswer(source, record), CtlError) << text;
    }
}

TEST(ColumnOrder, ColumnsComeAsTheyWereAskedFor) {
    TextSource source(answer);
    Record record;
    ColumnOrder order({"b", "missing", "a"}, record);
    EXPECT_FALSE(readAnswer(source, order));
    EXPECT_EQ(record.text, std::string("b a | x\"y 1; b:") + std::string("\0\xFF", 2) + " null; z ; 3/400 end");
}

}  // namespace
}  // namespace QOR
