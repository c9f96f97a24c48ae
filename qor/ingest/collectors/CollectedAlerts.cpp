#include "ingest/collectors/CollectedAlerts.h"

#include <array>
#include <charconv>
#include <utility>
#include <vector>

#include "QORCommon/QORTime.h"
#include "ingest/RecordLines.h"

namespace QOR {
namespace {

std::set<std::string> keysOf(std::string_view raised) {
    std::set<std::string> keys;
    while (!raised.empty()) {
        const std::size_t blank = raised.find(' ');
        if (blank != 0) keys.emplace(raised.substr(0, blank));
        raised.remove_prefix(blank == std::string_view::npos ? raised.size() : blank + 1);
    }
    return keys;
}

}  // namespace

CollectedAlerts::CollectedAlerts(QORCollection& collection, std::string source, std::string_view raised)
    : m_collection(collection), m_source(std::move(source)), m_now(currentTime()), m_raised(keysOf(raised)) {}

std::string CollectedAlerts::raised() const {
    std::string keys;
    for (const std::string& key : m_raised)
        keys.append(keys.empty() ? "" : " ").append(key);
    return keys;
}

void CollectedAlerts::clearUnless(const std::function<bool(const std::string& key)>& wanted,
                                  const std::function<QORInfo(const std::string& key)>& describe) {
    std::vector<std::string> gone;
    for (const std::string& key : m_raised) {
        if (!wanted(key)) gone.push_back(key);
    }
    for (const std::string& key : gone) {
        m_raised.erase(key);
        tell(key, false, describe(key));
    }
}

std::optional<bool> CollectedAlerts::judge(const std::string& key, bool beyond, bool within) {
    const bool before = isRaised(key);
    if (before ? !within : !beyond) return std::nullopt;
    if (before) {
        m_raised.erase(key);
    } else {
        m_raised.insert(key);
    }
    return !before;
}

void CollectedAlerts::tell(const std::string& key, bool raised, QORInfo info) {
    QOREventRecord event;
    event.time = m_now;
    event.eid = m_collection.machine();
    event.id =
        QORGUIDBase::fromName(event.eid, m_source + " " + key + (raised ? " + " : " - ") + std::to_string(event.time));
    event.source = m_source;
    event.category = "resource_alert";
    event.info = std::move(info);
    m_collection.add(lineOf(event));
}

std::string perCent(double share) {
    std::array<char, 32> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), share, std::chars_format::fixed, 2);
    return {text.data(), end.ptr};
}

}  // namespace QOR
