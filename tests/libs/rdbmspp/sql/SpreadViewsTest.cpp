// Selects from views whose rows lie in several places, each a schema of the database.
#include "libs/rdbmspp/Columns.h"
#include "libs/rdbmspp/PostgresFixture.h"
#include "rdbmspp/sql/ASSpread.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;
using Function = ASGroupAttribute::Function;

constexpr std::size_t placeCount = 3;

/// Rows lie by the remainder of their key, which stands as a text; those without one in the first place.
class Places final : public ASPlaces {
public:
    /// \param moved places by which all rows are said to have moved on
    explicit Places(std::size_t moved = 0) : m_moved(moved) {}

    std::size_t count() const noexcept override { return placeCount; }
    std::string schemaOf(std::size_t place, bool) const override { return "p" + std::to_string(place); }
    std::string schemaOfAll(bool) const override { return "pall"; }
    bool hasAll(std::string_view) const override { return true; }
    bool hasEach(std::string_view view) const override { return view == "v"; }
    bool isKey(std::string_view, std::string_view column) const override { return column == "k" || column == "n"; }
    std::optional<std::size_t> placeOf(const std::optional<std::string>& key) const override {
        if (!key) return 0;
        if (key->empty() || key->find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
        return (std::stoul(*key) + m_moved) % placeCount;
    }

private:
    const std::size_t m_moved;
};

class Spread final : public ASSpread {
public:
    std::shared_ptr<const ASPlaces> places() override {
        ++written;
        if (isTogether) return nullptr;
        return std::make_shared<Places>(moved);
    }
    bool isCurrent(const ASPlaces&) override { return current; }
    AException naming(const ASPlaces&, const AException& failure) override { return failure; }

    bool current = true;
    bool isTogether = false;  ///< all rows lie in the database itself
    std::size_t moved = 0;
    unsigned written = 0;  ///< selects: whoever writes one asks once for the places
};

/// k is the key, n its number, and text is "t" and its number; twelve rows have keys, one has none. A place says in
/// `place` which it is.
class SpreadViews : public PostgresTest {
protected:
    void SetUp() override {
        std::string sql =
            "CREATE TABLE t (k text, n int, text text); CREATE SCHEMA pall; "
            "INSERT INTO t SELECT i::text, i, 't' || i FROM generate_series(1, 12) i; INSERT INTO t VALUES (null, 0, "
            "'none'); "
            "CREATE VIEW v AS SELECT k, n, text, 'here' AS place FROM t; "
            "CREATE VIEW pall.v AS SELECT k, n, text, 'all' AS place FROM t; CREATE VIEW pall.w AS SELECT * FROM "
            "pall.v; ";
        for (std::size_t i = 0; i < placeCount; ++i) {
            const std::string name = "p" + std::to_string(i);
            sql += "CREATE SCHEMA " + name + "; CREATE VIEW " + name + ".v AS SELECT k, n, text, '" + name +
                   "' AS place FROM t WHERE coalesce(n, 0) % 3 = " + std::to_string(i) + "; ";
        }
        prepare(sql);
    }
    ASDomainPtr viewOf(const std::string& name, bool handsOutOnly = false) {
        return ASDomain::view(name, {}, {}, handsOutOnly, &spread);
    }

    Spread spread;
    ASDomainPtr v = viewOf("v");
    Column k = column(v, "k");
    Column n = column(v, "n", ASType::Int);
    Column text = column(v, "text");
    Column place = column(v, "place");
};

TEST_F(SpreadViews, APageComesFromEachPlaceAndIsMerged) {
    EXPECT_THAT(select(text.attribute, {}, {ASOrder(n.attribute)}, 4, 2), ElementsAre("t2", "t3", "t4", "t5"));
    EXPECT_THAT(select(place.attribute, {}, {ASOrder(n.attribute)}, 4), ElementsAre("p0", "p1", "p2", "p0"));
}

TEST_F(SpreadViews, APageWithoutOrderHasAsManyRowsAsWereAskedFor) {
    EXPECT_THAT(select(text.attribute, {}, {}, 5), SizeIs(5));
    EXPECT_THAT(select(text.attribute, k.attribute == ASVStr(5, "4"), {}, 5), ElementsAre("t4"));
}

TEST_F(SpreadViews, AKeySaysWhichPlaceIsAsked) {
    const ASOrder order(n.attribute);
    const auto placesOf = [&](const ASComparison& condition) {
        return select(place.attribute, condition, {order}, 20);
    };
    EXPECT_THAT(placesOf(k.attribute == ASVStr(5, "4")), ElementsAre("p1"));
    EXPECT_THAT(placesOf(ASAttribute::IsNull(k.attribute)), ElementsAre("p0"));
    EXPECT_THAT(placesOf(ASAttribute::In(k.attribute, "'4', '7'")), ElementsAre("p1", "p1"));
    EXPECT_THAT(placesOf(ASAttribute::In(k.attribute, "'4', '8'") && n.attribute > ASInt(5)), ElementsAre("p2"));
    EXPECT_THAT(placesOf(k.attribute == ASVStr(5, "4") && k.attribute == ASVStr(5, "5")), IsEmpty());
    // What says nothing about the place leaves all of them.
    EXPECT_THAT(placesOf(n.attribute == ASInt(4)), ElementsAre("p1"));
    EXPECT_THAT(placesOf(ASAttribute::In(k.attribute, "'4', 'x'")), ElementsAre("p1"));
    EXPECT_THAT(placesOf(ASAttribute::In(k.attribute, std::vector{text.attribute, k.attribute})), SizeIs(12));
    EXPECT_THAT(
        placesOf(ASAttribute::In(k.attribute, ASAttribute(ASAttribute::Raw::Select, "SELECT '4' UNION SELECT '8'"))),
        ElementsAre("p1", "p2"));
    EXPECT_THAT(placesOf(k.attribute == ASVStr(5, "4") || k.attribute == ASVStr(5, "8")), ElementsAre("p1", "p2"));
}

TEST_F(SpreadViews, WhatIsNoPageIsAskedOfAllTogether) {
    EXPECT_THAT(select(place.attribute, k.attribute == ASVStr(5, "4")), ElementsAre("p1")) << "rows without an end";
    EXPECT_THAT(select(place.attribute, n.attribute == ASInt(4)), ElementsAre("all"));
    EXPECT_THAT(select(place.attribute, ASAttribute::In(k.attribute, "'4', '8'"), {ASOrder(n.attribute)}),
                ElementsAre("p1", "p2"));
    const auto lower = [&](const Column& from) {
        ASAttribute attribute = ASAttribute::Lower(from.attribute);
        attribute.Register(makeData(ASType::VarChar), v);
        return attribute;
    };
    EXPECT_THAT(select(lower(place), n.attribute == ASInt(4), {}, 2), ElementsAre("all")) << "a computed column";
    EXPECT_THAT(select(place.attribute, n.attribute < ASInt(3), {ASOrder(lower(k))}, 2), ElementsAre("all", "all"))
        << "a computed order";
    EXPECT_THAT(select(place.attribute, n.attribute == ASInt(4), {}, 10'001), ElementsAre("all")) << "a long page";
}

TEST_F(SpreadViews, AViewThatOnlyAllOfThemHaveIsAskedThere) {
    const ASDomainPtr w = viewOf("w");
    const Column where = column(w, "place");
    const Column number = column(w, "n", ASType::Int);
    EXPECT_THAT(select(where.attribute, number.attribute == ASInt(4), {}, 2), ElementsAre("all"));
}

TEST_F(SpreadViews, CountsAreAddedUp) {
    ASGroupAttribute keys(Function::Count, k.attribute);
    keys.Register(makeData(ASType::BigInt), v);
    ASGroupAttribute numbers(Function::Count, n.attribute);
    numbers.Register(makeData(ASType::BigInt), v);
    EXPECT_THAT(select(keys), ElementsAre("12"));
    EXPECT_THAT(select(numbers, ASAttribute::IsNull(k.attribute)), ElementsAre("1"));
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << keys << numbers;
    cursor.Limit(1, 0);
    ASSERT_TRUE(cursor.Fetch());
    EXPECT_EQ(keys.data()->Str() + " of " + numbers.data()->Str(), "12 of 13");
    EXPECT_FALSE(cursor.Fetch());
}

TEST_F(SpreadViews, OneThatOnlyHandsOutIsReadWithoutATransaction) {
    const ASDomainPtr plain = viewOf("v", true);
    const Column number = column(plain, "n", ASType::Int);
    EXPECT_THAT(select(number.attribute, {}, {ASOrder(number.attribute)}, 3), ElementsAre("0", "1", "2"));
}

TEST_F(SpreadViews, RowsThatWereMovedMeanwhileAreNoAnswer) {
    spread.current = false;
    const AException failure = failureOf([&] { select(text.attribute, {}, {}, 5); });
    EXPECT_THAT(failure.text(), HasSubstr("rows have just been moved from one place to another"));
    EXPECT_EQ(failure.failure(), ASFailure::Undone);
}

/// The one column of the first row of a select that is kept.
std::string firstOf(const ASSelect& kept, const Column& column) {
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Select() = kept;
    return cursor.Fetch() ? test::cell(*column.data) : "(no row)";
}

TEST_F(SpreadViews, ASelectThatIsKeptIsWrittenOnceForEachRunByTheDivisionOfThatMoment) {
    ASSelect kept;
    kept.Filter().Project() << place.attribute;
    kept.Filter().Set(k.attribute == ASVStr(5, "4"));
    kept.Limit(5, 0);
    kept.keepWritten();
    for (unsigned runs = 1; runs <= 3; ++runs) {
        EXPECT_EQ(firstOf(kept, place), "p1");
        EXPECT_EQ(spread.written, runs);
    }
    spread.moved = 1;
    EXPECT_EQ(firstOf(kept, place), "(no row)") << "it is looked for where it is said to be now";
    EXPECT_EQ(spread.written, 4U);
}

TEST_F(SpreadViews, ASelectThatIsKeptIsAskedOfThePlacesAsSoonAsThereAreSome) {
    ASSelect kept;
    kept.Filter().Project() << place.attribute;
    kept.Filter().Set(k.attribute == ASVStr(5, "4"));
    kept.Limit(5, 0);
    kept.keepWritten();
    spread.isTogether = true;
    EXPECT_EQ(firstOf(kept, place), "here");
    EXPECT_EQ(firstOf(kept, place), "here");
    spread.isTogether = false;
    EXPECT_EQ(firstOf(kept, place), "p1");
}

TEST_F(SpreadViews, ASelectThatIsKeptIsWrittenAnewForAnotherEngine) {
    const ASDomainPtr engines = ASDomain::view("engines", {}, {}, false);
    const Column name = column(engines, "name");
    ASSelect kept;
    kept.Filter().Project() << name.attribute;
    kept.Filter().Set(ASAttribute::Lower(name.attribute) != ASVStr(5, "none"));
    kept.Limit(1, 0);
    kept.keepWritten();
    engine().run("CREATE VIEW engines AS SELECT 'PostgreSQL'::text AS name");
    EXPECT_EQ(firstOf(kept, name), "PostgreSQL");
    EXPECT_EQ(firstOf(kept, name), "PostgreSQL");

    QORRdbms::instance().shutdown();
    const TemporaryDirectory folder;
    ASDatabaseOptions file;
    file.connectionString = "Driver=SQLite3;Database=" + folder.file("test.db");
    QORRdbms::instance().configure(file);
    write("CREATE VIEW engines AS SELECT 'SQLite' AS name");
    EXPECT_EQ(firstOf(kept, name), "SQLite");
    EXPECT_EQ(firstOf(kept, name), "SQLite");
}

/// `n = 4 or n = 5 or ...`, with so many values.
ASComparison anyOf(const Column& column, int count) {
    std::vector<ASComparison> pending;
    for (int i = 0; i < count; ++i)
        pending.push_back(column.attribute == ASInt(4 + i));
    while (pending.size() > 1) {
        std::vector<ASComparison> joined;
        for (std::size_t i = 0; i < pending.size(); i += 2)
            joined.push_back(i + 1 < pending.size() ? pending[i] || pending[i + 1] : pending[i]);
        pending = std::move(joined);
    }
    return pending.front();
}

TEST_F(SpreadViews, AConditionWithTooManyValuesForEachPlaceIsAskedOfAllTogether) {
    EXPECT_THAT(select(place.attribute, anyOf(n, 2), {}, 5), UnorderedElementsAre("p1", "p2"));
    EXPECT_THAT(select(place.attribute, anyOf(n, 3'000), {}, 2), ElementsAre("all", "all"));
    EXPECT_THAT(failure([&] { select(place.attribute, anyOf(n, 7'001) && k.attribute == ASVStr(5, "4"), {}, 2); }),
                HasSubstr("too many values"));
}

}  // namespace
}  // namespace QOR::test
