/// \file
/// Alerts of this machine, with a memory of which are raised.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "QORFunctionality/QORCollector.h"
#include "QORLibAgent/QORInfo.h"

namespace QOR {

/// An alert is an event of the category resource_alert when it is raised, and another one when it is cleared; in
/// between it is silent. A key, which holds no blank, tells one from the others of its collector. Used by one thread
/// for the length of a run.
class CollectedAlerts {
public:
    /// \param raised the keys of those that are, separated by blanks, as raised() gave them
    CollectedAlerts(QORCollection& collection, std::string source, std::string_view raised);

    /// For the next run.
    std::string raised() const;
    bool isRaised(const std::string& key) const { return m_raised.contains(key); }
    /// Forgets those whose keys are not wanted any more, and tells so. \param describe what the event says of it
    void clearUnless(const std::function<bool(const std::string& key)>& wanted,
                     const std::function<QORInfo(const std::string& key)>& describe);

    /// \param beyond it is to be raised \param within it is to be cleared; with neither it stays as it is
    /// \returns what it has become, where that is news
    std::optional<bool> judge(const std::string& key, bool beyond, bool within);
    /// Brings the event. \param info what it says
    void tell(const std::string& key, bool raised, QORInfo info);

    /// "raised" or "cleared", which every alert says as its `state`.
    static const char* stateOf(bool raised) noexcept { return raised ? "raised" : "cleared"; }

private:
    QORCollection& m_collection;
    const std::string m_source;
    const std::int64_t m_now;
    std::set<std::string> m_raised;
};

/// A share in per cent, with two digits.
std::string perCent(double share);

}  // namespace QOR
