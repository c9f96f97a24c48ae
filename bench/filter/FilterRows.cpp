#include "filter/FilterRows.h"

#include <algorithm>
#include <random>

namespace QOR::bench {
namespace {

bool upperEquals(std::string_view text, std::string_view upper) {
    return std::equal(text.begin(), text.end(), upper.begin(), upper.end(),
                      [](char a, char b) { return (a >= 'a' && a <= 'z' ? static_cast<char>(a - 32) : a) == b; });
}

}  // namespace

FilterRows::FilterRows(std::size_t count) {
    constexpr std::array<std::string_view, 5> hosts{"web", "db", "mail", "cache", "build-worker"};
    constexpr std::array<std::string_view, 5> systems{"linux", "windows", "Linux", "freebsd", "LINUX"};
    std::mt19937 random(7);
    const auto pick = [&random](std::size_t limit) { return static_cast<std::size_t>(random()) % limit; };
    m_typed.resize(count);
    m_places.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        m_typed[i].state = static_cast<std::int32_t>(pick(10));
        m_typed[i].memory = static_cast<std::int32_t>(256 << pick(8));
        const std::array<std::string, 4> texts{
            std::string(hosts[pick(hosts.size())]) + std::to_string(pick(1000)) + ".example",
            std::string(systems[pick(systems.size())]), std::to_string(m_typed[i].state),
            std::to_string(m_typed[i].memory)};
        m_places[i].begin = static_cast<std::uint32_t>(m_bytes.size());
        for (std::size_t field = 0; field < texts.size(); ++field) {
            m_bytes += texts[field];
            m_places[i].lengths[field] = static_cast<std::uint8_t>(texts[field].size());
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        m_typed[i].hostname = texts(i).hostname;
        m_typed[i].os = texts(i).os;
    }
}

const std::array<Filter, 3>& filters() {
    static const std::array<Filter, 3> all{{
        {"number",
         "state = 6",
         "state = 6",
         ":state = 6",
         [](const TypedRow& row) { return row.state == 6; },
         {"state"}},
        {"mixed",
         "hostname like 'web%' and state = 6 and not (os = 'linux' or memory < 2048)",
         "hostname like 'web%' and state = 6 and not (os = 'linux' or memory < 2048)",
         ":hostname like 'web%' and :state = 6 and not (:os = 'linux' or :memory < 2048)",
         [](const TypedRow& row) {
             return row.hostname.starts_with("web") && row.state == 6 && !(row.os == "linux" || row.memory < 2048);
         },
         {"hostname", "state", "os", "memory"}},
        {"function",
         "upper(os) = 'LINUX'",
         "upper(os) = 'LINUX'",
         "upper(:os) = 'LINUX'",
         [](const TypedRow& row) { return upperEquals(row.os, "LINUX"); },
         {"os"}},
    }};
    return all;
}

}  // namespace QOR::bench
