/// \file
/// What a flood had besides what is told of it one by one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Events of one run that were left out, which are told as one: how many, from when until when, and who most of them
/// were about. Used by the run's thread.
class CollectedLeftOut {
public:
    /// \param of whom it is about \param name what tells it from all others of the collector \param time in seconds
    /// since the epoch
    void add(std::string_view of, std::string_view name, std::int64_t time);
    /// The event, where there is something to tell. \param source the collector
    void tell(QORCollection& collection, const std::string& source) const;

private:
    std::size_t m_count = 0;
    std::string m_name;  ///< of the first one
    std::int64_t m_first = 0;
    std::int64_t m_last = 0;
    std::map<std::string, std::size_t, std::less<>> m_ofOne;
    std::string m_loudest;
    std::size_t m_most = 0;
};

}  // namespace QOR
