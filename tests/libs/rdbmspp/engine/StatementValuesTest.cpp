// What is bound arrives whole and alone, what is read comes back whole and alone, whatever went through the same
// statement before.
#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "libs/rdbmspp/DatabaseFixture.h"
#include "libs/rdbmspp/engine/OdbcCalls.h"

namespace QOR::test {
namespace {

constexpr unsigned seed = 20240229;

/// A value as the engine tells it: its type and its bytes.
using Stored = std::pair<std::string, std::string>;

std::string toHex(std::string_view bytes) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string hex;
    for (const char c : bytes) {
        hex += digits[static_cast<unsigned char>(c) >> 4];
        hex += digits[static_cast<unsigned char>(c) & 15];
    }
    return hex;
}

/// Lengths on either side of every size at which a buffer may end.
std::vector<std::size_t> lengths() {
    std::vector<std::size_t> all;
    for (const std::size_t edge : {0U, 16U, 32U, 64U, 128U, 256U, 512U, 1024U, 2048U, 4096U, 65536U}) {
        for (std::size_t length = edge < 3 ? 0 : edge - 3; length <= edge + 3; ++length)
            all.push_back(length);
    }
    return all;
}

class Random {
public:
    std::size_t below(std::size_t bound) { return m_engine() % bound; }
    std::size_t length() {
        static const std::vector<std::size_t> all = lengths();
        return all[below(all.size())];
    }
    std::string bytes(std::size_t length) {
        std::string made(length, '\0');
        for (char& c : made)
            c = static_cast<char>(m_engine());
        return made;
    }
    std::string text(std::size_t length) {
        std::string made(length, ' ');
        for (char& c : made)
            c = static_cast<char>(' ' + m_engine() % 95);
        return made;
    }
    template <class T>
    void shuffle(std::vector<T>& items) {
        std::shuffle(items.begin(), items.end(), m_engine);
    }

private:
    std::mt19937 m_engine{seed};
};

class StatementValuesTest : public DatabaseTest {
protected:
    std::vector<Stored> stored() const {
        std::vector<Stored> all;
        for (auto& row : Engine(path()).rows("SELECT typeof(v), hex(v) FROM t ORDER BY i"))
            all.emplace_back(row[0], row[1]);
        return all;
    }
    /// Binds a value of a kind that chance decides, and says what the engine must make of it.
    Stored bindAny(ASStatement& statement) {
        switch (random.below(5)) {
            case 0:
                statement.bindNull(1);
                return {"null", ""};
            case 1: {
                const auto number = static_cast<std::int64_t>(random.below(1U << 30)) - (1 << 29);
                statement.bind(1, number);
                return {"integer", toHex(std::to_string(number))};
            }
            case 2:
                statement.bind(1, 0.5 + static_cast<double>(halves));
                return {"real", toHex(std::to_string(halves++) + ".5")};
            case 3: {
                const std::string text = random.text(random.length());
                statement.bind(1, text);
                return {"text", toHex(text)};
            }
            default: {
                const std::string bytes = random.bytes(random.length());
                statement.bindBinary(1, bytes);
                return {"blob", toHex(bytes)};
            }
        }
    }

    Random random;
    int halves = 0;
};

TEST_F(StatementValuesTest, BytesOfEveryLengthAreStoredWithTheirOwnLength) {
    open("CREATE TABLE t (i INTEGER PRIMARY KEY, v)");
    std::vector<Stored> expected;
    {
        QORRdbmsTran transaction(ASAccess::Write);
        auto& insert = transaction->prepare("INSERT INTO t (v) VALUES (?)");
        for (int round = 0; round < 3; ++round) {
            auto all = lengths();
            if (round == 1) std::reverse(all.begin(), all.end());
            if (round == 2) random.shuffle(all);
            for (const std::size_t length : all) {
                const std::string bytes = random.bytes(length);
                insert.bindBinary(1, bytes).execute();
                expected.emplace_back("blob", toHex(bytes));
            }
        }
        transaction.commit();
    }
    EXPECT_EQ(stored(), expected);
}

TEST_F(StatementValuesTest, ValuesOfEveryKindFollowOneAnotherInOneStatement) {
    open("CREATE TABLE t (i INTEGER PRIMARY KEY, v)");
    std::vector<Stored> expected;
    {
        QORRdbmsTran transaction(ASAccess::Write);
        ASStatement* insert = nullptr;
        for (int i = 0; i < 1500; ++i) {
            // Prepared anew it begins without parameters; bound again, or not, it goes on from those that it has.
            const bool fresh = insert == nullptr || random.below(4) == 0;
            if (fresh) insert = &transaction->prepare("INSERT INTO t (v) VALUES (?)");
            const bool again = !fresh && random.below(4) == 0;
            if (!again && !(fresh && random.below(4) == 0)) {
                expected.push_back(bindAny(*insert));
            } else if (again) {
                expected.push_back(Stored(expected.back()));
            } else {
                insert->bindNull(1);
                expected.emplace_back("null", "");
            }
            insert->execute();
        }
        transaction.commit();
    }
    EXPECT_EQ(stored(), expected);
}

TEST_F(StatementValuesTest, ParametersOfTheLastTransactionAreForgotten) {
    open("CREATE TABLE t (i INTEGER PRIMARY KEY, v, w)");
    for (const std::size_t length : {8U, 70000U, 8U}) {
        QORRdbmsTran transaction(ASAccess::Write);
        auto& insert = transaction->prepare("INSERT INTO t (v, w) VALUES (?, ?)");
        insert.bindBinary(1, std::string(length, 'b')).bind(2, std::string(length, 't')).execute();
        auto& empty = transaction->prepare("INSERT INTO t (v, w) VALUES (?, ?)");
        empty.bindNull(1).execute();
        transaction.commit();
    }
    EXPECT_THAT(Engine(path()).rows("SELECT typeof(v), length(v), typeof(w), length(w) FROM t ORDER BY i"),
                ::testing::ElementsAre(std::vector<std::string>{"blob", "8", "text", "8"},
                                       std::vector<std::string>{"null", "<null>", "null", "<null>"},
                                       std::vector<std::string>{"blob", "70000", "text", "70000"},
                                       std::vector<std::string>{"null", "<null>", "null", "<null>"},
                                       std::vector<std::string>{"blob", "8", "text", "8"},
                                       std::vector<std::string>{"null", "<null>", "null", "<null>"}));
}

TEST_F(StatementValuesTest, TextWithNulByteIsRefusedAsItWouldBeReadCut) {
    open("CREATE TABLE t (i INTEGER PRIMARY KEY, v)");
    QORRdbmsTran transaction(ASAccess::Write);
    auto& insert = transaction->prepare("INSERT INTO t (v) VALUES (?)");
    EXPECT_EQ(failure([&] { insert.bind(1, std::string_view("a\0b", 3)); }),
              "a text with a NUL byte cannot be sent to the database");
}

/// A table of texts and bytes of all lengths in an order of chance, nulls between them.
class ReadingTest : public StatementValuesTest {
protected:
    void SetUp() override {
        auto all = lengths();
        random.shuffle(all);
        for (std::size_t row = 0; row < all.size(); ++row) {
            texts.push_back(row % 7 == 3 ? "<null>" : random.text(all[row]));
            bytes.push_back(row % 5 == 2 ? "<null>" : random.bytes(all[all.size() - 1 - row]));
        }
        open("CREATE TABLE t (i INT, s NVARCHAR, b IMAGE); CREATE VIEW v AS SELECT i, s, b FROM t");
        QORRdbmsTran transaction(ASAccess::Write);
        for (std::size_t row = 0; row < all.size(); ++row) {
            auto& insert = transaction->prepare("INSERT INTO t VALUES (?, ?, ?)");
            insert.bind(1, static_cast<std::int64_t>(row));
            row % 7 == 3 ? insert.bindNull(2) : insert.bind(2, texts[row]);
            row % 5 == 2 ? insert.bindNull(3) : insert.bindBinary(3, bytes[row]);
            insert.execute();
        }
        transaction.commit();
    }

    std::vector<std::string> texts;
    std::vector<std::string> bytes;
    ASDomainPtr v = domainOf("v");
    Column i = column(v, "i", ASType::Int);
    Column s = column(v, "s");
    Column b = column(v, "b", ASType::Blob);
};

TEST_F(ReadingTest, HostStatementReadsEveryValueWhole) {
    for (int run = 0; run < 2; ++run) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        auto& query = transaction->prepare("SELECT s, b FROM t ORDER BY i");
        query.execute();
        std::vector<std::string> readTexts, readBytes;
        while (query.fetch()) {
            readTexts.emplace_back(query.isNull(1) ? "<null>" : query.text(1));
            readBytes.emplace_back(query.isNull(2) ? "<null>" : query.bytes(2));
        }
        EXPECT_EQ(readTexts, texts);
        EXPECT_EQ(readBytes, bytes);
    }
}

TEST_F(ReadingTest, CursorReadsEveryValueWholeBufferedOrStreamed) {
    for (const int limit : {0, 500, 5, 1000, 100}) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << s.attribute << b.attribute;
        cursor.Order(ASOrder(i.attribute));
        cursor.Limit(limit, 0);
        std::size_t row = 0;
        for (; cursor.Fetch(); ++row) {
            ASSERT_EQ(cell(*s.data), texts[row]) << row;
            ASSERT_EQ(cell(*b.data), bytes[row]) << row;
        }
        EXPECT_EQ(row, limit == 0 ? texts.size() : std::min<std::size_t>(texts.size(), static_cast<unsigned>(limit)));
    }
}

TEST_F(ReadingTest, StreamedResultThatWasLeftIsReadWholeTheNextTime) {
    for (std::size_t left = 0; left < texts.size(); left += 7) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << s.attribute << b.attribute;
        cursor.Order(ASOrder(i.attribute));
        for (std::size_t row = 0; row < left; ++row) {
            ASSERT_TRUE(cursor.Fetch());
            ASSERT_EQ(cell(*s.data), texts[row]) << row;
            ASSERT_EQ(cell(*b.data), bytes[row]) << row;
        }
    }
}

TEST_F(StatementValuesTest, LongValueIsAskedForInAsManyCallsAsAShortOne) {
    open("CREATE TABLE t (i INTEGER PRIMARY KEY, s, b)");
    Engine(path()).run(
        "INSERT INTO t VALUES (1, hex(zeroblob(40000)), randomblob(80000)),"
        "(2, hex(zeroblob(5000000)), randomblob(10000000))");
    QORRdbmsTran transaction(ASAccess::ReadOne);
    std::vector<std::uint64_t> calls, bytes;
    for (const std::int64_t i : {1, 2}) {
        auto& query = transaction->prepare("SELECT s, b FROM t WHERE i = ?");
        query.bind(1, i).execute();
        const OdbcCalls before = odbcCalls();
        ASSERT_TRUE(query.fetch());
        calls.push_back(odbcCalls().getData - before.getData);
        bytes.push_back(odbcCalls().bytesAskedFor - before.bytesAskedFor);
        EXPECT_EQ(query.text(1).size(), i == 1 ? 80000U : 10000000U);
        EXPECT_EQ(query.bytes(2).size(), i == 1 ? 80000U : 10000000U);
    }
    EXPECT_GT(calls[0], 0U);
    EXPECT_EQ(calls[1], calls[0]);
    EXPECT_LE(bytes[1], 125 * bytes[0]);
}

}  // namespace
}  // namespace QOR::test
