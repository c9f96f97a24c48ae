/// \file
/// The agent in numbers, for Prometheus and who reads its text format.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "agent/api/PrometheusText.h"
#include "agent/http/HttpLimits.h"
#include "agent/http/HttpTypes.h"

namespace QOR {

struct AgentTrace;

/// Counts requests at their ends. Labels come from the agent's own tables (routes, statuses that it gives, names of
/// limits), so that nobody from outside makes up another series. Used by the server's thread alone.
class AgentMetrics {
public:
    /// \param trace null: of a request that is none
    void count(const HttpEnd& end, const AgentTrace* trace);
    void write(PrometheusText& text) const;

private:
    /// Upper bounds of the latency's buckets, in seconds.
    static constexpr std::array<double, 14> bounds{0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                                   0.25,  0.5,    1,     2.5,  5,     10,   30};

    struct Route {
        std::array<std::uint64_t, bounds.size() + 1> buckets{};  ///< not added up; the last is of what took longer
        double seconds = 0;
        std::uint64_t bytes = 0;
        std::uint64_t rows = 0;
    };

    std::map<std::pair<std::string_view, unsigned>, std::uint64_t> m_requests;  // by route and status
    std::map<std::string_view, Route> m_routes;
    std::map<std::string_view, std::uint64_t> m_problems;  // by code
    std::uint64_t m_gone = 0;
    std::uint64_t m_broken = 0;
    std::uint64_t m_stored = 0;
    std::uint64_t m_refused = 0;
};

/// What the server tells of itself.
void writeCounts(PrometheusText& text, const HttpCounts& counts);

}  // namespace QOR
