/// \file
/// How far records have been sent on, kept beside them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORLibAgent/QORRecordChanges.h"

namespace QOR {

/// A record that the other agent does not want, and why.
struct ForwardRefused {
    QORRecordChange record{};
    std::string reason{};
};

/// What is known in the process's database of one target. Used by one thread at a time. \throws AException from every
/// method
class ForwardPosition {
public:
    /// What is kept of refused records at most; then those that were refused first are forgotten.
    static constexpr std::size_t mostRefused = 10'000;

    explicit ForwardPosition(std::string target) : m_target(std::move(target)) {}

    QORChangePosition read() const;
    /// An agent sends there: what it has not sent yet is waited for, see waitingForSenders. \param keep bytes that the
    /// database may use meanwhile \param behind since when something waits, in seconds since the epoch
    void note(std::uint64_t keep, std::optional<std::int64_t> behind) const;
    /// As it was noted last.
    std::optional<std::int64_t> behind() const;
    /// What events get their identifiers from: made once for a database, and kept by its copies.
    static QORGUIDBase stream();
    /// Everything up to there has been taken, but for what was refused. \param gone servers that are none of the
    /// database's any more: nothing is known of them from here on
    /// \returns how many refused records were forgotten
    std::uint64_t store(const QORChangePosition& position, const std::vector<std::string>& gone,
                        const std::vector<ForwardRefused>& refused) const;

    std::uint64_t countRefused() const;
    /// Those that were refused first.
    std::vector<ForwardRefused> refused(std::size_t most) const;
    /// They have been sent again: `again` those that are still refused. \returns how many were forgotten
    std::uint64_t settle(const std::vector<ForwardRefused>& sent, const std::vector<ForwardRefused>& again) const;

private:
    void forget(ASSession& session, const std::string& server) const;
    std::uint64_t note(ASSession& session, const std::vector<ForwardRefused>& refused) const;

    const std::string m_target;
};

}  // namespace QOR
