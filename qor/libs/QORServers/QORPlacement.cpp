#include "QORServers/QORPlacement.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// More than there will be servers: what a table by remainders may take.
constexpr std::uint64_t mostRemainders = 1 << 20;

[[noreturn]] void refuse(const std::string& what) {
    throw QORException(errFailure, "the placement of environments: " + what, QOR_SOURCE_PATH, __LINE__);
}

/// Bob Jenkins' hash of 96 bits at a time, in the form that the engine has of it.
class Hash {
public:
    Hash(std::uint32_t bytes, std::uint64_t seed) noexcept {
        constexpr std::uint32_t golden = 0x9e3779b9;
        constexpr std::uint32_t arbitrary = 3923095;
        m_a = m_b = m_c = golden + bytes + arbitrary;
        m_a += static_cast<std::uint32_t>(seed >> 32);
        m_b += static_cast<std::uint32_t>(seed);
        mix();
    }

    void add(std::uint32_t a, std::uint32_t b, std::uint32_t c) noexcept {
        m_a += a;
        m_b += b;
        m_c += c;
        mix();
    }
    std::uint64_t end(std::uint32_t a) noexcept {
        m_a += a;
        fold(m_c, m_b, 14);
        fold(m_a, m_c, 11);
        fold(m_b, m_a, 25);
        fold(m_c, m_b, 16);
        fold(m_a, m_c, 4);
        fold(m_b, m_a, 14);
        fold(m_c, m_b, 24);
        return (std::uint64_t{m_b} << 32) | m_c;
    }

private:
    static void stir(std::uint32_t& x, std::uint32_t& y, std::uint32_t& z, int bits) noexcept {
        x = (x - z) ^ std::rotl(z, bits);
        z += y;
    }
    static void fold(std::uint32_t& x, std::uint32_t y, int bits) noexcept { x = (x ^ y) - std::rotl(y, bits); }
    void mix() noexcept {
        stir(m_a, m_b, m_c, 4);
        stir(m_b, m_c, m_a, 6);
        stir(m_c, m_a, m_b, 8);
        stir(m_a, m_b, m_c, 16);
        stir(m_b, m_c, m_a, 19);
        stir(m_c, m_a, m_b, 4);
    }

    std::uint32_t m_a = 0;
    std::uint32_t m_b = 0;
    std::uint32_t m_c = 0;
};

}  // namespace

// As servers compute it whose numbers begin with their lowest byte.
std::uint64_t QORPlacement::hash(const QOREID& eid) noexcept {
    if (!eid.isValid()) return 0;  // nothing is added for null
    std::array<std::uint32_t, 4> words{};
    for (std::size_t i = 0; i < eid.bytes().size(); ++i)
        words[i / 4] |= std::uint32_t{eid.bytes()[i]} << (8 * (i % 4));
    Hash hash(static_cast<std::uint32_t>(eid.bytes().size()), seedOfPartitions);
    hash.add(words[0], words[1], words[2]);
    return hash.end(words[3]) + combining;
}

QORPlacement::QORPlacement(std::int64_t epoch, std::vector<QORServer> servers)
    : m_epoch(epoch), m_servers(std::move(servers)) {
    constexpr std::uint32_t nobody = ~std::uint32_t{0};
    std::sort(m_servers.begin(), m_servers.end(),
              [](const QORServer& left, const QORServer& right) { return left.number < right.number; });
    if (m_servers.empty()) return;
    std::uint64_t largest = 1;
    for (const QORServer& server : m_servers) {
        if (server.modulus == 0 || server.modulus > mostRemainders || server.remainder >= server.modulus)
            refuse("server " + quoteText(server.name) + " has the remainder " + std::to_string(server.remainder) +
                   " of " + std::to_string(server.modulus));
        largest = std::max(largest, server.modulus);
    }
    m_byRemainder.assign(largest, nobody);
    for (std::uint32_t at = 0; at < m_servers.size(); ++at) {
        const QORServer& server = m_servers[at];
        if (largest % server.modulus != 0)
            refuse("the modulus of server " + quoteText(server.name) + " does not divide the largest one");
        for (std::uint64_t remainder = server.remainder; remainder < largest; remainder += server.modulus) {
            if (m_byRemainder[remainder] != nobody)
                refuse("servers " + quoteText(m_servers[m_byRemainder[remainder]].name) + " and " +
                       quoteText(server.name) + " have environments in common");
            m_byRemainder[remainder] = at;
        }
    }
    const auto gap = std::find(m_byRemainder.begin(), m_byRemainder.end(), nobody);
    if (gap != m_byRemainder.end())
        refuse("no server has the remainder " + std::to_string(gap - m_byRemainder.begin()) + " of " +
               std::to_string(largest));
}

const QORServer* QORPlacement::find(std::string_view name) const noexcept {
    const auto found =
        std::find_if(m_servers.begin(), m_servers.end(), [&](const QORServer& one) { return one.name == name; });
    return found == m_servers.end() ? nullptr : &*found;
}

}  // namespace QOR
