#include "QORMessage/QORAnswer.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"

namespace QOR {
namespace {

using Write = std::function<void(QORBinaryIterator&)>;

void writeRow(QORBinaryIterator& at, const std::vector<std::string>& values) {
    ASSERT_EQ(at.addChild(tag::row), 0);
    for (const std::string& value : values)
        ASSERT_EQ(at.putValue(value, tag::value), 0);
    at.seekUp();
}

void writeError(QORBinaryIterator& at, int code, const std::string& text) {
    at.addChild(tag::error);
    at.putInt(code, tag::errorCode);
    at.putValue(text, tag::message);
    at.seekUp();
}

/// Names, rows that are taken one by one, counts.
void writePage(QORBinaryIterator& at, int rows) {
    at.addChild(tag::rowSet);
    at.putValue("a", tag::name);
    at.putValue("b", tag::name);
    for (int row = 0; row < rows; ++row)
        writeRow(at, {std::to_string(row), "\"quoted\"\n"});
    at.putInt(rows, tag::statistics);
    at.putInt(rows * 2, tag::total);
    at.seekUp();
}

std::string whole(const Write& write) {
    QORMessage message;
    QORBinaryIterator at = message.root();
    write(at);
    std::string text;
    writeResponse(message, text);
    return text;
}

/// The answer as it leaves while `write` writes it.
struct Streamed {
    explicit Streamed(
        const Write& write, QORAnswerWriter::AfterRow afterRow = [](std::int64_t) { return true; }) {
        QORMessage message;
        const auto format = makeNotationAnswer([this](std::string_view block) {
            text += block;
            return true;
        });
        QORAnswerWriter writer(message, *format, std::move(afterRow));
        QORBinaryIterator at = message.root();
        write(at);
        writer.finish();
        rows = writer.rows();
        takenBack = writer.isTakenBack();
        memory = message.memory();
        nodes = message.nodeCount();
    }
    std::string text{};
    std::int64_t rows = 0;
    bool takenBack = false;
    std::size_t memory = 0;
    std::size_t nodes = 0;
};

TEST(Answer, IsSpelledAsIfItHadBeenKept) {
    const std::vector<Write> answers = {
        [](QORBinaryIterator&) {},
        [](QORBinaryIterator& at) { at.putValue("text", tag::value); },
        [](QORBinaryIterator& at) { at.addChild(tag::rowSet); },
        [](QORBinaryIterator& at) { at.putValue("no rows but a text", tag::rowSet); },
        [](QORBinaryIterator& at) { writePage(at, 0); },
        [](QORBinaryIterator& at) { writePage(at, 1); },
        [](QORBinaryIterator& at) { writePage(at, 1000); },
        [](QORBinaryIterator& at) {
            writePage(at, 2);
            at.putValue("between", tag::value);
            at.addChild(tag::reply);
            at.putValue("below", tag::value);
            at.seekUp();
            writePage(at, 3);
            at.putValue("behind", tag::value);
        },
        [](QORBinaryIterator& at) {
            at.putValue("before", tag::value);
            writePage(at, 2);
        },
        [](QORBinaryIterator& at) {
            at.addChild(tag::rowSet);
            writeRow(at, {"a row without names"});
            writeRow(at, {});
            at.putValue("between rows", tag::name);
            writeRow(at, {"x"});
            at.putValue("a row that is a value", tag::row);
            at.putValue("and another", tag::row);
        },
        [](QORBinaryIterator& at) {
            writePage(at, 3);
            writeError(at, 7, "behind the rows");
        },
        [](QORBinaryIterator& at) {
            at.addChild(tag::rowSet);
            writeRow(at, {"x"});
            writeError(at, 7, "within the row set");
            writeError(at, 8, "a second one");
        },
        [](QORBinaryIterator& at) {
            // Rows elsewhere than in a row set at the top stay where they are.
            writeRow(at, {"beside"});
            at.addChild(tag::reply);
            at.addChild(tag::rowSet);
            writeRow(at, {"below"});
        },
        [](QORBinaryIterator& at) {
            at.addChild(tag::rowSet);
            at.addChild(tag::row);
            at.addChild(tag::cell);
            at.putBinary("\0\1", 2, tag::value);
            at.seekUp();
            at.addChild(tag::cell);
            at.putValue("first");
            at.putValue("replaced");
            at.seekUp();
            at.addChild(tag::rowSet);
            writeRow(at, {"a row within a row"});
        },
    };
    for (const Write& write : answers) {
        const std::string expected = whole(write);
        EXPECT_EQ(Streamed(write).text, expected);
    }
}

constexpr QORRowValue null{};
QORRowValue text(std::string_view bytes) {
    return {bytes, QORValueKind::Text};
}
QORRowValue binary(std::string_view bytes) {
    return {bytes, QORValueKind::Binary};
}

void writeElements(QORBinaryIterator& at, const std::vector<QORRowValue>& values) {
    ASSERT_EQ(at.addChild(tag::row), 0);
    for (const QORRowValue& value : values) {
        ASSERT_EQ(at.addChild(tag::value), 0);
        if (value.kind == QORValueKind::Text) {
            ASSERT_EQ(at.putValue(value.bytes), 0);
        } else if (value.kind == QORValueKind::Binary) {
            ASSERT_EQ(at.putBinary(value.bytes.data(), value.bytes.size()), 0);
        }
        at.seekUp();
    }
    at.seekUp();
}

TEST(Answer, ARowGivenWholeIsSpelledAsItsElementsAre) {
    const std::string longText(3000, '"');
    const std::vector<std::vector<QORRowValue>> rows = {
        {},
        {text("1"), null, text("")},
        {null},
        {binary({"\0\1", 2}), text("\"quoted\"\n"), text("\xff no text"), binary("")},
        {text(longText), text("\xc3\xa9")},
    };
    using WriteRow = std::function<void(QORBinaryIterator&, const std::vector<QORRowValue>&)>;
    const auto answerOf = [&](const WriteRow& writeRow) {
        return [&rows, writeRow](QORBinaryIterator& at) {
            at.putValue("before", tag::value);
            at.addChild(tag::rowSet);
            at.putValue("a", tag::name);
            for (const auto& row : rows)
                writeRow(at, row);
            at.putValue("between rows", tag::name);
            writeElements(at, {text("in elements")});
            writeRow(at, {text("behind")});
            writeError(at, 7, "within the row set");
            at.seekUp();
            at.addChild(tag::rowSet);
            writeRow(at, {text("another row set")});
            at.seekUp();
        };
    };
    const Streamed given(answerOf(
        [](QORBinaryIterator& at, const std::vector<QORRowValue>& values) { EXPECT_TRUE(at.giveRow(values)); }));
    EXPECT_EQ(given.text, whole(answerOf(writeElements)));
    EXPECT_EQ(given.rows, static_cast<std::int64_t>(rows.size()) + 3);
}

TEST(Answer, ARowIsNotGivenWhereRowsStay) {
    QORMessage message;
    QORBinaryIterator at = message.root();
    at.addChild(tag::rowSet);
    EXPECT_FALSE(at.giveRow(std::vector{text("x")})) << "nobody takes rows";
    EXPECT_EQ(message.nodeCount(), 1U);
    const Streamed answer([](QORBinaryIterator& beside) {
        EXPECT_FALSE(beside.giveRow(std::vector{text("beside")}));
        beside.addChild(tag::reply);
        EXPECT_FALSE(beside.giveRow(std::vector{text("elsewhere")}));
        beside.addChild(tag::rowSet);
        EXPECT_FALSE(beside.giveRow(std::vector{text("below")}));
        beside.reset();
        beside.putValue("a text", tag::rowSet);
        beside.firstChild(tag::rowSet);
        EXPECT_FALSE(beside.giveRow(std::vector{text("below a text")}));
    });
    EXPECT_EQ(answer.rows, 0);
}

/// How many rows of two values of 5 bytes a message takes that has these limits.
std::pair<int, int> givenAndWritten(const QORMessageLimits& limits) {
    std::pair<int, int> counts;
    for (int* const count : {&counts.first, &counts.second}) {
        QORMessage message(limits);
        const auto format = makeNotationAnswer([](std::string_view) { return true; });
        const QORAnswerWriter writer(message, *format, [](std::int64_t rows) { return rows < 10; });
        QORBinaryIterator at = message.root();
        at.addChild(tag::rowSet);
        const std::vector values{text("12345"), text("67890")};
        const auto write = [&] {
            const bool done = at.addChild(tag::row) == 0 && at.putValue("12345", tag::value) == 0 &&
                              at.putValue("67890", tag::value) == 0;
            at.seekUp();
            return done;
        };
        while (count == &counts.first ? at.giveRow(values) : write())
            ++*count;
    }
    return counts;
}

TEST(Answer, ARowIsGivenWithinTheLimitsThatItsElementsWouldMeet) {
    const auto with = [](auto member, auto value) {
        QORMessageLimits limits;
        limits.*member = value;
        return givenAndWritten(limits);
    };
    const std::pair all(10, 10), none(0, 0);
    EXPECT_EQ(with(&QORMessageLimits::nodes, 4U), all);
    EXPECT_EQ(with(&QORMessageLimits::nodes, 3U), none);
    EXPECT_EQ(with(&QORMessageLimits::bytes, 10U), all);
    EXPECT_EQ(with(&QORMessageLimits::bytes, 9U), none);
    EXPECT_EQ(with(&QORMessageLimits::depth, 3U), all);
    EXPECT_EQ(with(&QORMessageLimits::depth, 2U), none);
}

TEST(Answer, TakesTheMemoryOfOneRow) {
    const Streamed answer([](QORBinaryIterator& at) { writePage(at, 100'000); });
    EXPECT_EQ(answer.rows, 100'000);
    EXPECT_LE(answer.memory, std::size_t{4} << 10);
    EXPECT_LE(answer.nodes, 8U);
}

TEST(Answer, ARowLeavesWhenTheCursorDoes) {
    std::int64_t seen = 0;
    Streamed(
        [&](QORBinaryIterator& at) {
            at.addChild(tag::rowSet);
            for (int row = 1; row <= 3; ++row) {
                at.addChild(tag::row);
                at.putValue("x", tag::value);
                EXPECT_EQ(seen, row - 1);
                at.seekUp();
                EXPECT_EQ(seen, row);
            }
        },
        [&](std::int64_t rows) {
            seen = rows;
            return true;
        });
}

TEST(Answer, WritingFailsOnceNoMoreIsTaken) {
    int written = 0;
    const Streamed answer(
        [&](QORBinaryIterator& at) {
            at.addChild(tag::rowSet);
            while (at.addChild(tag::row) == 0) {
                at.putValue(std::to_string(++written), tag::value);
                at.seekUp();
            }
            EXPECT_NE(at.putValue("x", tag::value), 0);
        },
        [](std::int64_t rows) { return rows < 3; });
    EXPECT_EQ(written, 3);
    EXPECT_EQ(answer.rows, 3);
}

TEST(Answer, AnOutputThatThrowsEndsTheWritingAndTheFinish) {
    QORMessage message;
    const auto format = makeNotationAnswer([](std::string_view) -> bool { throw std::runtime_error("no more room"); });
    QORAnswerWriter writer(message, *format, [&](std::int64_t) {
        format->flush();
        return true;
    });
    QORBinaryIterator at = message.root();
    at.addChild(tag::rowSet);
    writeRow(at, {"x"});
    EXPECT_NE(at.addChild(tag::row), 0);
    EXPECT_THROW(writer.finish(), std::runtime_error);
}

TEST(Answer, RowsThatWereTakenBackAreToldAndTheErrorStandsBehindThem) {
    const Streamed answer([](QORBinaryIterator& at) {
        at.putValue("before", tag::value);
        at.addChild(tag::rowSet);
        writeRow(at, {"1"});
        at.addChild(tag::row);  // half a row, which never leaves
        at.putValue("2", tag::value);
        at.reset();
        at.removeChildren(tag::rowSet);
        writeError(at, 1, "the database has gone");
        at.putValue("behind", tag::value);
    });
    EXPECT_TRUE(answer.takenBack);
    EXPECT_EQ(answer.text, R"({"response":[[1018,"before"],[1744,[[1739,[[1018,"1"]]]]],[1018,"behind"]],)"
                           R"("error":{"code":1,"message":"the database has gone"}})");
}

TEST(Answer, ARowSetTakenBackBeforeItsFirstRowHasNotLeft) {
    const Streamed answer([](QORBinaryIterator& at) {
        at.addChild(tag::rowSet);
        at.putValue("a", tag::name);
        at.reset();
        at.removeChildren(tag::rowSet);
        writeError(at, 1, "no");
    });
    EXPECT_FALSE(answer.takenBack);
    EXPECT_EQ(answer.text, R"({"response":[],"error":{"code":1,"message":"no"}})");
}

TEST(Answer, AnErrorOfTheHostTakesThePlaceOfTheMessages) {
    QORMessage message;
    std::string text;
    const auto format = makeNotationAnswer([&](std::string_view block) {
        text += block;
        return true;
    });
    QORAnswerWriter writer(message, *format, [](std::int64_t) { return true; });
    QORBinaryIterator at = message.root();
    writeError(at, 1, "cannot create new child in output message");
    const QORAnswerError error{1, "too long"};
    writer.finish(&error);
    EXPECT_EQ(text, R"({"response":[],"error":{"code":1,"message":"too long"}})");
}

TEST(Answer, WhatIsWrittenBesideAnOpenRowIsKept) {
    const Streamed answer([](QORBinaryIterator& at) {
        at.addChild(tag::rowSet);
        QORBinaryIterator beside = at;
        for (int row = 0; row < 3; ++row) {
            at.addChild(tag::row);
            at.putValue("r", tag::value);
            beside.putValue("beside " + std::to_string(row), tag::name);
            at.seekUp();
        }
        at.reset();
        at.putValue("end", tag::value);
    });
    EXPECT_EQ(answer.rows, 3);
    EXPECT_EQ(answer.text, R"({"response":[[1744,[[1739,[[1018,"r"]]],[1026,"beside 0"],[1739,[[1018,"r"]]],)"
                           R"([1026,"beside 1"],[1739,[[1018,"r"]]],[1026,"beside 2"]]],[1018,"end"]]})");
}

TEST(Answer, AMessageIsUsedAgainAfterAStream) {
    QORMessage message;
    for (int turn = 0; turn < 3; ++turn) {
        std::string text;
        const auto format = makeNotationAnswer([&](std::string_view block) {
            text += block;
            return true;
        });
        {
            QORAnswerWriter writer(message, *format, [](std::int64_t) { return true; });
            QORBinaryIterator at = message.root();
            writePage(at, 5);
            writer.finish();
        }
        EXPECT_EQ(text, whole([](QORBinaryIterator& at) { writePage(at, 5); }));
        message.clear();
    }
    QORBinaryIterator at = message.root();
    writePage(at, 5);
    EXPECT_EQ(message.nodeCount(), 1U + 2 + 5 * 3 + 2) << "without a writer rows stay";
}

// ---- memory

TEST(MessageMemory, AMessageThatOutgrowsItsAccountRefusesAndSaysWhy) {
    QORMemoryBudget all;
    const QORMemoryScope scope(std::make_shared<QORMemoryAccount>(all, std::size_t{64} << 10));
    {
        QORMessage message;
        QORBinaryIterator at = message.root();
        std::size_t written = 0;
        while (at.putValue("0123456789", tag::value) == 0)
            ++written;
        EXPECT_GT(written, 100U);
        EXPECT_EQ(message.nodeCount(), written) << "nothing half-written stays";
        EXPECT_EQ(message.refusal(), "the message does not fit into memory: one request may hold 64 KiB");
        EXPECT_LE(all.used(), std::size_t{64} << 10);
        message.clear();
        EXPECT_TRUE(message.refusal().empty());
        EXPECT_EQ(all.used(), 0U) << "what is kept for later counts for nobody";
    }
    EXPECT_EQ(all.used(), 0U);
}

TEST(MessageMemory, ARequestThatIsTooLargeIsRefusedByTheNameOfTheBudget) {
    QORMemoryBudget all;
    const QORMemoryScope scope(std::make_shared<QORMemoryAccount>(all, std::size_t{1} << 20, "a request"));
    std::string json = R"({"operator":"x","request":"y","body":[1,[[1])";
    for (int element = 0; element < 100'000; ++element)
        json += ",[1]";
    json += "]]}";
    try {
        readRequest(json);
        FAIL();
    } catch (const QORException& refused) {
        EXPECT_EQ(refused.code(), errBadRequest);
        EXPECT_NE(refused.message().find("the message does not fit into memory: a request may hold 1 MiB"),
                  std::string::npos)
            << refused.message();
    }
    EXPECT_EQ(all.used(), 0U);
}

}  // namespace
}  // namespace QOR
