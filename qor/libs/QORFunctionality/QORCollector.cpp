#include "QORFunctionality/QORCollector.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// What the database has room for.
constexpr std::size_t longestName = 64;

bool canBeCalled(const std::string& name) {
    const auto isOfName = [](char ch) { return isAlphaChar(ch) || isDigitChar(ch) || ch == '-'; };
    return !name.empty() && name.size() <= longestName && name != "all" &&
           std::all_of(name.begin(), name.end(), isOfName);
}

}  // namespace

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

std::vector<std::string> QORCollectorRegistry::refusals() const {
    const std::lock_guard lock(m_mutex);
    std::vector<std::string> reasons;
    for (const Refusal& refusal : m_refusals)
        reasons.push_back(refusal.reason);
    return reasons;
}

std::string QORCollectorRegistry::faultOf(const std::string& name) const {
    if (!canBeCalled(name))
        return "a collector cannot be called " + quoteText(name) + ": a name has letters, digits and '-', " +
               std::to_string(longestName) + " at most, and is not \"all\"";
    const bool isTaken = std::any_of(m_collectors.begin(), m_collectors.end(),
                                     [&](const QORCollector* other) { return other->traits().name == name; });
    return isTaken ? "there is a collector " + quoteText(name) + " already" : std::string();
}

void QORCollectorRegistry::add(QORCollector* collector) {
    const std::lock_guard lock(m_mutex);
    std::string fault = faultOf(collector->traits().name);
    if (fault.empty()) {
        m_collectors.push_back(collector);
    } else {
        m_refusals.push_back({collector, std::move(fault)});
    }
}

void QORCollectorRegistry::remove(QORCollector* collector) noexcept {
    const std::lock_guard lock(m_mutex);
    std::erase(m_collectors, collector);
    std::erase_if(m_refusals, [&](const Refusal& refusal) { return refusal.collector == collector; });
}

}  // namespace QOR
