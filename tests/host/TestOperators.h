/// \file
/// Operators that live in the test itself, for tests of the runtime that look inside.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "QORFunctionality/QOROpFactory.h"

namespace QOR::test {

/// What a test wants an operator to do; one set for all its objects.
struct Behaviour {
    std::function<void()> init = [] {};
    std::function<void(QORMessageIterator&, QORMessageIterator&)> select = [](auto&, auto&) {};
    std::function<void()> stop = [] {};
    std::function<void()> disconnect = [] {};
    int made = 0;
    int alive = 0;
};

class TestOperator final : public QOROperatorFunctionalPrototype {
public:
    explicit TestOperator(Behaviour& behaviour) : m_behaviour(behaviour) {
        static const MethodDescriptor methods[] = {method("select", &TestOperator::select, 100, 0),
                                                   {"", nullptr, 0, 0}};
        registerMethods(methods);
        ++m_behaviour.made;
        ++m_behaviour.alive;
    }
    ~TestOperator() override { --m_behaviour.alive; }
    void init() override { m_behaviour.init(); }
    void stopCallback() override { m_behaviour.stop(); }
    void disconnect(QORAccesserPrototype*) override { m_behaviour.disconnect(); }

private:
    void select(QORMessageIterator* in, QORMessageIterator* out) { m_behaviour.select(*in, *out); }
    Behaviour& m_behaviour;
};

/// Serves an operator name for as long as it lives.
class TestFactory final : public QOROpFactory {
public:
    TestFactory(const char* name, Behaviour& behaviour, const QOROpPriming* priming)
        : QOROpFactory(name, 0), m_behaviour(behaviour) {
        setPriming(priming);
    }
    QORPtr<QOROperatorPrototype> newOperator() override {
        QORPtr<QOROperatorPrototype> op(new TestOperator(m_behaviour));
        op->setName(name());
        return op;
    }
    QORPtr<QORAccesserPrototype> newAccesser(const QORPtr<QOROperatorPrototype>& op) override {
        return makeQORPtr<QORAccesserPoolPrototype>(op, QORPtr<QOROpFactory>(this), 10, 20, 4);
    }

private:
    Behaviour& m_behaviour;
};

/// Registers a factory and keeps it.
class ServedOperator {
public:
    explicit ServedOperator(const char* name, const QOROpPriming* priming = nullptr)
        : m_factory(makeQORPtr<TestFactory>(name, behaviour, priming)) {}
    Behaviour behaviour;

private:
    QORPtr<TestFactory> m_factory;
};

}  // namespace QOR::test
