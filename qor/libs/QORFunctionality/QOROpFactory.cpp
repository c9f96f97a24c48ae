#include "QORFunctionality/QOROpFactory.h"

#include <algorithm>

namespace QOR {

QOROpFactory::QOROpFactory(const char* name, int value) : m_name(name), m_value(value) {
    QOROpFactoryRegistry::instance().add(this);
}

QOROpFactory::~QOROpFactory() {
    QOROpFactoryRegistry::instance().remove(this);
}

QOROpFactoryRegistry& QOROpFactoryRegistry::instance() {
    // Never destroyed: factories of plug-ins that stay loaded until the end of the process still sign off here.
    static QOROpFactoryRegistry* const registry = new QOROpFactoryRegistry();
    return *registry;
}

QORPtr<QOROpFactory> QOROpFactoryRegistry::find(const std::string& name) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = std::find_if(m_factories.begin(), m_factories.end(),
                                    [&](const QOROpFactory* factory) { return factory->name() == name; });
    return found == m_factories.end() ? nullptr : QORPtr<QOROpFactory>(*found);
}

std::vector<std::string> QOROpFactoryRegistry::names() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> result;
    for (const QOROpFactory* factory : m_factories)
        result.push_back(factory->name());
    return result;
}

std::vector<QORVocCategoryRule> QOROpFactoryRegistry::vocabulary() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<QORVocCategoryRule> rules;
    for (const QOROpFactory* factory : m_factories)
        rules.insert(rules.end(), factory->vocabulary().begin(), factory->vocabulary().end());
    return rules;
}

void QOROpFactoryRegistry::add(QOROpFactory* factory) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_factories.push_back(factory);
}

void QOROpFactoryRegistry::remove(QOROpFactory* factory) noexcept {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_factories.erase(std::remove(m_factories.begin(), m_factories.end(), factory), m_factories.end());
}

}  // namespace QOR
