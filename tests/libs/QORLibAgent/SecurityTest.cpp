#include "QORLibAgent/QORSecurity.h"

#include <gtest/gtest.h>

#include <thread>

namespace QOR {
namespace {

QOREID eid(const char* text) {
    return QOREID(QORGUIDBase::parse(text).value());
}

const QOREID a = eid("aaaaaaaa-0000-0000-0000-000000000001");
const QOREID b = eid("bbbbbbbb-0000-0000-0000-000000000002");

/// An identifier that another host issued.
class ForeignSid final : public QORSID {
public:
    bool equals(const QORSID& other) const noexcept override { return this == &other; }
    bool less(const QORSID& other) const noexcept override { return this < &other; }
};

QORClientContextPtr contextOf(std::initializer_list<QORLocalSID> sids) {
    auto context = std::make_shared<QORClientContext>();
    QORToken::SidSet set;
    for (const auto& sid : sids)
        set.insert(std::make_shared<QORLocalSID>(sid));
    context->token = std::make_shared<QORToken>(nullptr, std::move(set));
    return context;
}

TEST(LocalSid, EqualsByAllItsParts) {
    EXPECT_TRUE(QORLocalSID(0, 1, a).equals(QORLocalSID(0, 1, a)));
    EXPECT_FALSE(QORLocalSID(0, 1, a).equals(QORLocalSID(0, 2, a)));
    EXPECT_FALSE(QORLocalSID(0, 1, a).equals(QORLocalSID(1, 1, a)));
    EXPECT_FALSE(QORLocalSID(0, 1, a).equals(QORLocalSID(0, 1, b)));
    EXPECT_FALSE(QORLocalSID(0, 1, a).equals(ForeignSid()));
}

TEST(ExtractObjId, TakesOnlyPrincipalZeroOfTypeOneOrTwoWithAnEnvironment) {
    QOREID out = b;
    EXPECT_TRUE(extractObjIdFromSID(QORLocalSID(0, 1, a), out));
    EXPECT_EQ(out, a);
    EXPECT_TRUE(extractObjIdFromSID(QORLocalSID(0, 2, b), out));
    EXPECT_EQ(out, b);
    for (const QORLocalSID& sid :
         {QORLocalSID(1, 1, a), QORLocalSID(0, 0, a), QORLocalSID(0, 3, a), QORLocalSID(0, 1, QOREID())}) {
        EXPECT_FALSE(extractObjIdFromSID(sid, out));
        EXPECT_EQ(out, b);
    }
    EXPECT_FALSE(extractObjIdFromSID(ForeignSid(), out));
}

TEST(ClientContext, BelongsToTheThreadAndScopesNest) {
    EXPECT_FALSE(QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext()));
    EXPECT_EQ(QORToken::getCurrent()->ownSID(), nullptr);
    auto full = std::make_shared<QORClientContext>();
    full->fullAccess = true;
    const QORClientContextScope scope(full);
    EXPECT_TRUE(QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext()));
    std::thread([] { EXPECT_FALSE(QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext())); }).join();
    {
        const QORClientContextScope inner(contextOf({{0, 1, a}}));
        EXPECT_FALSE(QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext()));
        EXPECT_EQ(QORToken::getCurrent()->sids().size(), 1U);
    }
    EXPECT_TRUE(QORAccessChecker::hasFullAccess(QORAccessChecker::getClientContext()));
}

TEST(AccessCheck, GrantsWhatTheIdentitiesStandFor) {
    const auto both = contextOf({{0, 1, a}, {0, 2, b}});
    EXPECT_EQ(QORAccessChecker::accessCheck(both, {a, b}, 1, 1), 0);
    EXPECT_EQ(QORAccessChecker::accessCheck(both, {}, 1, 1), 0);
    EXPECT_EQ(QORAccessChecker::accessCheck(contextOf({{0, 1, a}}), {a, b}, 1, 1), 5);
    EXPECT_EQ(QORAccessChecker::accessCheck(contextOf({{0, 3, a}}), {a}, 1, 1), 7);
    auto full = std::make_shared<QORClientContext>();
    full->fullAccess = true;
    EXPECT_EQ(QORAccessChecker::accessCheck(full, {a, b}, 1, 1), 0);
}

}  // namespace
}  // namespace QOR
