#include "QORFunctionality/QORCollector.h"

#include <algorithm>
#include <utility>

namespace QOR {

QORCollection::~QORCollection() = default;

QORCollector::QORCollector(Traits traits) : m_traits(std::move(traits)) {
    QORCollectorRegistry::instance().add(this);
}

QORCollector::~QORCollector() {
    QORCollectorRegistry::instance().remove(this);
}

QORCollectorRegistry& QORCollectorRegistry::instance() {
    // Never destroyed: collectors of plug-ins that stay loaded until the end of the process still sign off here.
    static QORCollectorRegistry* const registry = new QORCollectorRegistry();
    return *registry;
}

std::vector<QORCollector*> QORCollectorRegistry::all() const {
    const std::lock_guard lock(m_mutex);
    return m_collectors;
}

void QORCollectorRegistry::add(QORCollector* collector) {
    const std::lock_guard lock(m_mutex);
    const auto same = std::find_if(m_collectors.begin(), m_collectors.end(), [&](const QORCollector* other) {
        return other->traits().name == collector->traits().name;
    });
    if (same == m_collectors.end()) m_collectors.push_back(collector);
}

void QORCollectorRegistry::remove(QORCollector* collector) noexcept {
    const std::lock_guard lock(m_mutex);
    m_collectors.erase(std::remove(m_collectors.begin(), m_collectors.end(), collector), m_collectors.end());
}

}  // namespace QOR
