#include "agent/api/AgentMetrics.h"

#include <algorithm>
#include <chrono>

#include "agent/api/AgentTrace.h"

namespace QOR {
namespace {

using Type = PrometheusText::Type;

std::string_view labelOf(std::string_view route) {
    return route.empty() ? "none" : route;
}

}  // namespace

void AgentMetrics::count(const HttpEnd& end, const AgentTrace* trace) {
    const std::string_view name = labelOf(trace == nullptr ? std::string_view() : trace->route);
    if (end.how == HttpEnd::How::Gone) ++m_gone;
    if (end.how == HttpEnd::How::BrokenOff) ++m_broken;
    if (end.status != 0) ++m_requests[{name, end.status}];
    Route& route = m_routes[name];
    const double seconds = std::chrono::duration<double>(end.time).count();
    const auto* const bucket = std::lower_bound(bounds.begin(), bounds.end(), seconds);
    ++route.buckets[static_cast<std::size_t>(bucket - bounds.begin())];
    route.seconds += seconds;
    route.bytes += end.bytes;
    if (trace == nullptr) return;
    route.rows += static_cast<std::uint64_t>(trace->notes.rows);
    if (!trace->problem.empty()) ++m_problems[trace->problem];
    m_stored += trace->notes.stored;
    m_refused += trace->notes.refused;
}

void AgentMetrics::write(PrometheusText& text) const {
    text.family("qor_http_requests_total", Type::Counter, "Requests that were answered.");
    for (const auto& [key, number] : m_requests)
        text.sample(number, {{"route", key.first}, {"status", std::to_string(key.second)}});
    text.family("qor_problems_total", Type::Counter, "Problems that the work on requests ended with, by their codes.");
    for (const auto& [code, number] : m_problems)
        text.sample(number, {{"code", code}});
    text.family("qor_http_unfinished_total", Type::Counter, "Requests whose answers did not arrive whole.");
    text.sample(m_gone, {{"why", "client gone"}});
    text.sample(m_broken, {{"why", "broken off"}});
    text.family("qor_http_request_seconds", Type::Histogram, "Time from a request's head to its answer's last byte.");
    for (const auto& [name, route] : m_routes) {
        std::uint64_t sum = 0;
        for (std::size_t bucket = 0; bucket < route.buckets.size(); ++bucket) {
            sum += route.buckets[bucket];
            const std::string bound = bucket < bounds.size() ? prometheusNumber(bounds[bucket]) : "+Inf";
            text.sample("_bucket", sum, {{"route", name}, {"le", bound}});
        }
        text.sample("_sum", route.seconds, {{"route", name}});
        text.sample("_count", sum, {{"route", name}});
    }
    text.family("qor_http_response_bytes_total", Type::Counter, "Bytes of answers' bodies, as they were sent.");
    for (const auto& [name, route] : m_routes)
        text.sample(route.bytes, {{"route", name}});
    text.family("qor_rows_total", Type::Counter, "Rows of answers.");
    for (const auto& [name, route] : m_routes)
        text.sample(route.rows, {{"route", name}});
    text.family("qor_ingest_records_total", Type::Counter, "Records that clients and collectors brought.");
    text.sample(m_stored, {{"outcome", "stored"}});
    text.sample(m_refused, {{"outcome", "refused"}});
}

void writeCounts(PrometheusText& text, const HttpCounts& counts) {
    text.family("qor_http_connections", Type::Gauge, "Open connections.");
    for (const HttpCounts::Listener& listener : counts.listeners)
        text.sample(std::uint64_t{listener.open}, {{"listener", listener.address}});
    text.family("qor_http_accepted_total", Type::Counter, "Connections that were accepted.");
    for (const HttpCounts::Listener& listener : counts.listeners)
        text.sample(listener.accepted, {{"listener", listener.address}});
    text.family("qor_http_idle_connections", Type::Gauge, "Open connections that wait for a request.");
    text.sample(std::uint64_t{counts.idle});
    text.family("qor_http_useless_clients_total", Type::Counter, "Clients that spoke another language.");
    text.sample(counts.useless);
    const auto lanes = [&](const char* name, const char* help, auto number) {
        text.family(name, Type::Gauge, help);
        for (std::size_t lane = 0; lane < counts.lanes.size(); ++lane)
            text.sample(std::uint64_t{number(counts.lanes[lane])}, {{"lane", nameOf(static_cast<HttpLane>(lane))}});
    };
    lanes("qor_http_workers", "Requests that may run at once.", [](const auto& lane) { return lane.most; });
    lanes("qor_http_running", "Requests that run.", [](const auto& lane) { return lane.running; });
    lanes("qor_http_waiting", "Requests that wait for their turn.", [](const auto& lane) { return lane.waiting; });
    text.family("qor_http_body_memory_bytes", Type::Gauge, "Memory that large bodies hold.");
    text.sample(std::uint64_t{counts.bodyMemory});
    text.family("qor_http_waiting_bodies", Type::Gauge, "Bodies that wait for memory.");
    text.sample(std::uint64_t{counts.bodiesWaiting});
    text.family("qor_http_limits_total", Type::Counter, "How often clients met a limit, by its option's name.");
    for (std::size_t limit = 0; limit < counts.limits.size(); ++limit)
        text.sample(counts.limits[limit], {{"limit", nameOf(static_cast<HttpLimit>(limit))}});
}

}  // namespace QOR
