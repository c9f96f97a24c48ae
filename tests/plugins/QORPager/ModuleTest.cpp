// The module as the host meets it: a library that is loaded, asked for operators, and unloaded.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "QORFunctionality/QOROpFactory.h"

namespace QOR {
namespace {

class Module : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(names().empty());
        m_library = dlopen(QOR_MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(m_library, nullptr) << dlerror();
    }
    void TearDown() override {
        if (m_library != nullptr) dlclose(m_library);
        EXPECT_TRUE(names().empty());
    }
    int call(const char* name) { return reinterpret_cast<int (*)()>(dlsym(m_library, name))(); }
    static std::vector<std::string> names() { return QOROpFactoryRegistry::instance().names(); }

    void* m_library = nullptr;
};

TEST_F(Module, MakesItsFactoriesWhileItIsLoadedAndInThisOrder) {
    EXPECT_EQ(names(), (std::vector<std::string>{"pager2", "pager"}));
}

TEST_F(Module, EntryPointsReturnZeroHoweverOftenAndRegisterNothing) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(call("initQORPlugIn"), 0);
        EXPECT_EQ(names().size(), 2U);
    }
    for (int round = 0; round < 2; ++round)
        EXPECT_EQ(call("finiQORPlugIn"), 0);
    EXPECT_EQ(names().size(), 2U);
}

TEST_F(Module, FactoriesHaveTheirNumbers) {
    const std::pair<const char*, int> expected[] = {{"pager", 100}, {"pager2", 10}};
    for (const auto& [name, value] : expected) {
        const auto factory = QOROpFactoryRegistry::instance().find(name);
        ASSERT_NE(factory, nullptr);
        EXPECT_EQ(factory->value(), value);
        const auto op = factory->newOperator();
        EXPECT_EQ(op->getName(), name);
        EXPECT_EQ(op->getNamespace(), 272);
        const auto accesser = factory->newAccesser(op);
        const auto& pool = dynamic_cast<const QORAccesserPoolPrototype&>(*accesser);
        EXPECT_EQ(pool.idleLimit(), 10);
        EXPECT_EQ(pool.useLimit(), 20);
        EXPECT_EQ(pool.step(), 4);
    }
}

TEST_F(Module, OperatorsKnowTheRequestSelectAlone) {
    for (const char* const name : {"pager", "pager2"}) {
        const auto op = QOROpFactoryRegistry::instance().find(name)->newOperator();
        const auto* functional = dynamic_cast<const QOROperatorFunctionalPrototype*>(op.get());
        ASSERT_NE(functional, nullptr);
        ASSERT_EQ(functional->methods().size(), 1U);
        const auto& [request, method] = *functional->methods().begin();
        EXPECT_EQ(request, "select");
        EXPECT_EQ(method.first, 100);
        EXPECT_EQ(method.second, 0);
    }
}

}  // namespace
}  // namespace QOR
