#include <gtest/gtest.h>

#include <stdexcept>

#include "QORFunctionality/QOROpFactory.h"

namespace QOR {
namespace {

int liveOperators = 0;

class CountedOperator final : public QOROperatorPrototype {
public:
    CountedOperator() { ++liveOperators; }
    ~CountedOperator() override { --liveOperators; }
    int call(const std::string&, QORMessageIterator*, QORMessageIterator*) override { return -1; }
};

class FailingOperator final : public QOROperatorPrototype {
public:
    FailingOperator() { throw std::runtime_error("no operator today"); }
    int call(const std::string&, QORMessageIterator*, QORMessageIterator*) override { return -1; }

private:
    CountedOperator m_part;
};

TEST(Factory, NamesAndNumbersWhatItMakes) {
    const auto factory = newOperatorFactory<CountedOperator, 10, 20, 4, true>("counted", 272, 100);
    EXPECT_EQ(factory->name(), "counted");
    EXPECT_EQ(factory->value(), 100);
    const auto op = factory->newOperator();
    EXPECT_EQ(op->getName(), "counted");
    EXPECT_EQ(op->getNamespace(), 272);
    EXPECT_NE(factory->newOperator(), op);
}

class PrimedOperator final : public QOROperatorPrototype {
public:
    static constexpr QOROpPriming priming{"select", "[1740]", nullptr};
    int call(const std::string&, QORMessageIterator*, QORMessageIterator*) override { return -1; }
};

TEST(Factory, CarriesThePrimingOfItsClass) {
    EXPECT_EQ((newOperatorFactory<CountedOperator, 10, 20, 4, true>("counted", 272, 100)->priming()), nullptr);
    const auto factory = newOperatorFactory<PrimedOperator, 10, 20, 4, true>("primed", 272, 100);
    EXPECT_EQ(factory->priming(), &PrimedOperator::priming);
}

TEST(Factory, HandsItsPoolIntegersOn) {
    const auto factory = newOperatorFactory<CountedOperator, 10, 20, 4, true>("counted", 272, 100);
    const auto accesser = factory->newAccesser(factory->newOperator());
    const auto& pool = dynamic_cast<const QORAccesserPoolPrototype&>(*accesser);
    EXPECT_EQ(pool.idleLimit(), 10);
    EXPECT_EQ(pool.useLimit(), 20);
    EXPECT_EQ(pool.step(), 4);
}

TEST(Factory, OperatorsLiveAsLongAsTheirReferences) {
    const auto factory = newOperatorFactory<CountedOperator, 10, 20, 4, true>("counted", 272, 100);
    {
        auto accesser = factory->newAccesser(factory->newOperator());
        EXPECT_EQ(liveOperators, 1);
    }
    EXPECT_EQ(liveOperators, 0);
}

TEST(Factory, AnOperatorThatFailsToConstructLeavesNothingBehind) {
    const auto factory = newOperatorFactory<FailingOperator, 10, 20, 4, true>("failing", 1, 1);
    EXPECT_THROW(factory->newOperator(), std::runtime_error);
    EXPECT_EQ(liveOperators, 0);
}

TEST(Registry, KnowsFactoriesInTheOrderOfTheirMakingForAsLongAsTheyLive) {
    auto& registry = QOROpFactoryRegistry::instance();
    EXPECT_EQ(registry.find("one"), nullptr);
    {
        const auto one = newOperatorFactory<CountedOperator, 1, 1, 1, true>("one", 1, 1);
        const auto two = newOperatorFactory<CountedOperator, 1, 1, 1, true>("two", 1, 1);
        EXPECT_EQ(registry.find("one"), one);
        EXPECT_EQ(registry.names(), (std::vector<std::string>{"one", "two"}));
        EXPECT_EQ(registry.find("One"), nullptr);
    }
    EXPECT_TRUE(registry.names().empty());
}

}  // namespace
}  // namespace QOR
