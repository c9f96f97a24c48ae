/// \file
/// The environments that tests and benchmarks make up, and clients of different rights.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "QORLibAgent/QORSecurity.h"

namespace QOR::test {

/// The environment of this number, of twelve digits at the most.
inline QOREID eidOf(std::uint64_t number) {
    std::string digits = std::to_string(number);
    digits.insert(0, 12 - std::min<std::size_t>(digits.size(), 12), '0');
    QOREID eid;
    eid.fromString("6ba7b810-9dad-11d1-80b4-" + digits);
    return eid;
}
/// As a text of SQL.
inline std::string quotedEid(std::uint64_t number) {
    return "'" + eidOf(number).toString() + "'";
}

inline QORClientContextPtr fullAccess() {
    auto context = std::make_shared<QORClientContext>();
    context->fullAccess = true;
    return context;
}

/// A client without full access. \param own its own identity; may be null
inline QORClientContextPtr clientWith(QORSIDPtr own, QORToken::SidSet others) {
    auto context = std::make_shared<QORClientContext>();
    context->token = std::make_shared<QORToken>(std::move(own), std::move(others));
    return context;
}

/// \param sids the first is its own identity
inline QORClientContextPtr restricted(const std::vector<QORLocalSID>& sids) {
    QORSIDPtr own;
    QORToken::SidSet others;
    for (const QORLocalSID& sid : sids) {
        auto shared = std::make_shared<QORLocalSID>(sid);
        if (!own) {
            own = std::move(shared);
        } else {
            others.insert(std::move(shared));
        }
    }
    return clientWith(std::move(own), std::move(others));
}

/// A client without an identity of its own, whose others stand for the environments of these numbers.
inline QORClientContextPtr accessTo(const std::vector<unsigned>& numbers) {
    QORToken::SidSet sids;
    for (const unsigned number : numbers)
        sids.insert(std::make_shared<QORLocalSID>(0, 1, eidOf(number)));
    return clientWith(nullptr, std::move(sids));
}

}  // namespace QOR::test
