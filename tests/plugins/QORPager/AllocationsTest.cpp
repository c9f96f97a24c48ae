// Counts allocations: a row costs none once the texts have been as long as they get.
#include "support/AllocationCounter.h"

#include <gtest/gtest.h>

#include <string>

#include "QORPager/QORExpressionEvaluation.h"

namespace QOR {
namespace {

const char* const filters[] = {
    "state = 6",
    "hostname like 'web%' and state = 6 and not (os = 'linux' or memory < 2048)",
    "upper(os) = 'LINUX'",
    "lower(hostname) like '%web%' or upper(hostname + '.' + os) = 'WEB1.A-LONG-DOMAIN-NAME.LINUX'",
    "(memory + 1024) / 2 * 3 - 5 > state and os <> hostname and state = '6'",
    "(state = 6) = 'true' or (memory = 1024) <> 0",
};

void expectNoAllocations(const char* filter, bool special) {
    TExpressionEvaluation evaluator(filter);
    evaluator.setIdentifier("state", 0, special);
    evaluator.setIdentifier("memory", 0, special);
    evaluator.setIdentifier("hostname", "", special);
    evaluator.setIdentifier("os", "", special);
    ASSERT_FALSE(special ? evaluator.prepareSpecial() : evaluator.prepare());
    const TIdentifierHandle state = evaluator.bindingHandle("state");
    const TIdentifierHandle memory = evaluator.bindingHandle("memory");
    const TIdentifierHandle hostname = evaluator.bindingHandle("hostname");
    const TIdentifierHandle os = evaluator.bindingHandle("os");
    const std::string hosts[] = {"web1.a-long-domain-name", "mail.another-long-name", "db"};
    std::size_t before = 0;
    int selected = 0;
    for (int row = 0; row < 1000; ++row) {
        if (row == 10) before = test::allocations;
        bool out = false;
        TExpressionEvaluation::setFromText(state, row % 2 == 0 ? "6" : "5");
        TExpressionEvaluation::setFromText(memory, row % 3 == 0 ? "4096" : "1024");
        TExpressionEvaluation::setFromText(hostname, hosts[row % 3]);
        TExpressionEvaluation::setFromText(os, row % 5 == 0 ? "windows" : "linux");
        ASSERT_FALSE(special ? evaluator.returnBooleanSpecial(out) : evaluator.returnBoolean(out));
        selected += out ? 1 : 0;
    }
    EXPECT_EQ(test::allocations - before, 0U) << filter;
    EXPECT_GT(selected, 0) << filter;
}

TEST(ExpressionAllocations, ARowCostsNone) {
    for (const char* filter : filters) {
        expectNoAllocations(filter, false);
        expectNoAllocations(filter, true);
    }
}

}  // namespace
}  // namespace QOR
