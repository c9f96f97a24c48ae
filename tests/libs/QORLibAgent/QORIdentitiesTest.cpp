// Identities and tokens in the database, and what they become.
#include "QORLibAgent/QORIdentities.h"

#include "LogDatabase.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORTime.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using Kind = QORIdentityKind;

QOREnvList::Env environmentBelow(std::uint64_t number, std::uint64_t above) {
    return makeQORPtr<QOREnv>(eidOf(number), above == 0 ? QOREID() : eidOf(above), std::nullopt, QOREnv::Status{0, 0},
                              nullptr, nullptr);
}

/// 1 above 2 above 3; 4 and 5 above each other; 6 alone.
std::set<QOREID> objectsOf(std::vector<QORIdentityEnvironment> environments) {
    QOREnvCache cache;
    cache.update({environmentBelow(1, 0), environmentBelow(2, 1), environmentBelow(3, 2), environmentBelow(4, 5),
                  environmentBelow(5, 4), environmentBelow(6, 0)});
    const QORClientContextScope scope(fullAccess());
    return contextOf({"x", Kind::Token, "x", false, std::move(environments)}, *cache.getEnvList())->objects();
}

TEST(IdentityContext, IsOfTheEnvironmentsAndThoseBelowThem) {
    EXPECT_THAT(objectsOf({}), IsEmpty());
    EXPECT_THAT(objectsOf({{eidOf(1), false}, {eidOf(6), false}}), UnorderedElementsAre(eidOf(1), eidOf(6)));
    EXPECT_THAT(objectsOf({{eidOf(1), true}}), UnorderedElementsAre(eidOf(1), eidOf(2), eidOf(3)));
    EXPECT_THAT(objectsOf({{eidOf(2), true}, {eidOf(3), true}}), UnorderedElementsAre(eidOf(2), eidOf(3)));
    EXPECT_THAT(objectsOf({{eidOf(4), true}}), UnorderedElementsAre(eidOf(4), eidOf(5))) << "a circle";
    EXPECT_THAT(objectsOf({{eidOf(9), true}}), UnorderedElementsAre(eidOf(9))) << "one that there is not, yet";
}

TEST(IdentityContext, ItsOwnIsTheFirstEnvironment) {
    const auto context =
        contextOf({"x", Kind::Token, "x", false, {{eidOf(7), false}, {eidOf(3), false}}}, QOREnvList());
    QOREID own;
    ASSERT_TRUE(extractObjIdFromSID(*context->token->ownSID(), own));
    EXPECT_EQ(own, eidOf(7));
    EXPECT_EQ(context->token->sids().size(), 1U);
    EXPECT_FALSE(context->fullAccess);
}

class IdentitiesTest : public LogDatabaseTest {
protected:
    static int codeOf(const std::function<void()>& work) {
        try {
            work();
        } catch (const QORException& exception) {
            return exception.code();
        }
        return 0;
    }
    QORIdentity reader{"reader", Kind::Token, "reader", false, {{eidOf(2), true, true}, {eidOf(1), false}}};
    QORIdentity admin{"admin", Kind::User, "root", true, {}};
};

TEST_F(IdentitiesTest, AreReadAsTheyWereAdded) {
    addIdentity(reader);
    addIdentity(admin);
    EXPECT_THAT(readIdentities().identities, ElementsAre(admin, reader));
    removeIdentity("reader");
    EXPECT_THAT(readIdentities().identities, ElementsAre(admin));
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_identity_environment"), "0");
}

TEST(IdentityScope, IsOfTheEnvironmentsThatMayBeWrittenAbout) {
    const QORWriteScope scope = writeScopeOf(
        {"x", Kind::Token, "x", false, {{eidOf(1), false, true}, {eidOf(2), true, true}, {eidOf(3), true, false}}});
    EXPECT_EQ(scope.name, "x");
    EXPECT_THAT(scope.single, UnorderedElementsAre(eidOf(1)));
    EXPECT_THAT(scope.subtrees, UnorderedElementsAre(eidOf(2)));
    EXPECT_TRUE(writeScopeOf({"x", Kind::Token, "x", false, {{eidOf(3), true, false}}}).empty());
}

TEST_F(IdentitiesTest, WhereNothingIsKnownOfWritersNobodyIsOne) {
    addIdentity(reader);
    ASSERT_TRUE(readIdentities().identities.at(0).environments.at(0).writes);
    runSql("ALTER TABLE qor_identity_environment DROP COLUMN writes");
    EXPECT_THAT(readIdentities().identities.at(0).environments,
                ElementsAre(QORIdentityEnvironment{eidOf(2), true}, QORIdentityEnvironment{eidOf(1), false}));
}

TEST_F(IdentitiesTest, OfATokenTheDatabaseHasTheDigestAlone) {
    addIdentity(reader);
    const std::string token = createToken("reader", 5000);
    ASSERT_EQ(token.size(), 68U);
    const auto tokens = readIdentities().tokens;
    ASSERT_EQ(tokens.size(), 1U);
    EXPECT_EQ(tokens[0].digest, digestOfToken(token));
    EXPECT_EQ(tokens[0].expires, 5000);
    EXPECT_EQ(tokens[0].lastUse, std::nullopt);
    EXPECT_NE(createToken("reader", std::nullopt), token);
    EXPECT_EQ(revokeTokens("reader", tokens[0].id()), 1U);
    EXPECT_EQ(revokeTokens("reader", {}), 1U);
    EXPECT_THAT(readIdentities().tokens, IsEmpty());
}

TEST_F(IdentitiesTest, OfEndedSessionsThoseAreKeptThatWouldStillLast) {
    const std::string one(32, 'a');
    const std::string two(32, 'b');
    const std::int64_t later = currentTime() + 3600;
    const std::int64_t number = identityNumber().value();
    endSession(one, 1);
    EXPECT_GT(identityNumber().value(), number);
    EXPECT_THAT(readIdentities().endedSessions, IsEmpty());
    endSession(two, later);
    endSession(two, later);
    EXPECT_THAT(readIdentities().endedSessions, ElementsAre(std::pair(two, later)));
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_ended_session"), "1");
    runSql("DROP TABLE qor_ended_session");
    EXPECT_THAT(readIdentities().endedSessions, IsEmpty());
    EXPECT_EQ(codeOf([&] { endSession(one, later); }), errFailure);
}

TEST_F(IdentitiesTest, EachChangeIsNumberedWhoeverMakesItButNoUse) {
    std::int64_t last = identityNumber().value();
    const auto grown = [&] {
        const std::int64_t before = std::exchange(last, identityNumber().value());
        return last > before;
    };
    addIdentity(reader);
    EXPECT_TRUE(grown());
    const std::string digest = digestOfToken(createToken("reader", std::nullopt));
    EXPECT_TRUE(grown());
    noteTokenUses({{digest, 100}});
    noteTokenUses({{digest, 50}});
    EXPECT_FALSE(grown());
    EXPECT_EQ(readIdentities().tokens.at(0).lastUse, 100);
    runSql("UPDATE qor_token SET expires = 7");
    EXPECT_TRUE(grown());
    runSql("UPDATE qor_identity SET full_access = 1");
    EXPECT_TRUE(grown());
    runSql("DELETE FROM qor_identity_environment");
    EXPECT_TRUE(grown());
    EXPECT_EQ(revokeTokens("reader", {}), 1U);
    EXPECT_TRUE(grown());
    removeIdentity("reader");
    EXPECT_TRUE(grown());
}

TEST_F(IdentitiesTest, WhatIsNotThereIs404AndWhatCannotBe400) {
    EXPECT_EQ(codeOf([] { removeIdentity("reader"); }), 404);
    EXPECT_EQ(codeOf([] { createToken("reader", std::nullopt); }), 404);
    EXPECT_EQ(codeOf([] { revokeTokens("reader", {}); }), 404);
    addIdentity(reader);
    addIdentity(admin);
    EXPECT_EQ(codeOf([] { revokeTokens("reader", {}); }), 404);
    EXPECT_EQ(codeOf([] { createToken("admin", std::nullopt); }), 400);
    EXPECT_EQ(codeOf([&] { addIdentity(reader); }), 400);
    EXPECT_EQ(codeOf([&] { addIdentity({"other", Kind::User, "root"}); }), 400);
    EXPECT_EQ(codeOf([&] { addIdentity({"", Kind::Token, "x"}); }), 400);
    EXPECT_EQ(codeOf([&] { addIdentity({"a\nb", Kind::Token, "x"}); }), 400);
    EXPECT_EQ(codeOf([&] { addIdentity({"x", Kind::Token, "x", true, {{eidOf(1), false}}}); }), 400);
    EXPECT_EQ(codeOf([&] { addIdentity({"x", Kind::Token, "x", false, {{QOREID(), false}}}); }), 400);
    EXPECT_EQ(readIdentities().identities.size(), 2U);
}

TEST_F(IdentitiesTest, ADatabaseWithoutThemHasNone) {
    for (const char* table : {"qor_identity_change", "qor_identity", "qor_identity_environment", "qor_token"})
        runSql("DROP TABLE " + std::string(table));
    EXPECT_EQ(identityNumber(), std::nullopt);
    EXPECT_THAT(readIdentities().identities, IsEmpty());
    EXPECT_EQ(codeOf([&] { addIdentity(reader); }), errFailure);
}

}  // namespace
}  // namespace QOR::test
