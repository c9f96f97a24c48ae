#include "forward/ForwardConnection.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <utility>

#include "QORCommon/QORNumbers.h"

namespace QOR {
namespace {

/// Whoever takes records in may wait for its database for as long as a request may take, and for its turn before; no
/// answer about records is longer.
constexpr HttpLink::Bounds forwardBounds{.connect = std::chrono::seconds(10),
                                         .send = std::chrono::seconds(60),
                                         .answer = std::chrono::seconds(120),
                                         .body = std::uint64_t{16} << 20};

std::string tokenIn(const std::string& file) {
    std::ifstream stream(file);
    std::string token;
    std::getline(stream, token);
    while (!token.empty() && (token.back() == '\r' || token.back() == ' '))
        token.pop_back();
    if (token.empty()) throw HttpLost(file + " holds no token in its first line");
    return token;
}

}  // namespace

ForwardConnection::ForwardConnection(QORForwardTarget target) : m_target(std::move(target)) {}

ForwardConnection::~ForwardConnection() = default;

ForwardReply ForwardConnection::post(const std::string& path, std::string_view packed, const std::stop_token& stop) {
    const auto isStopping = [&stop] { return stop.stop_requested(); };
    HttpQuestion question{.method = "POST",
                          .path = path,
                          .fields = {{"Content-Type", "application/x-ndjson"}, {"Content-Encoding", "gzip"}},
                          .body = packed};
    if (!m_target.tokenFile.empty())
        question.fields.emplace_back("Authorization", "Bearer " + tokenIn(m_target.tokenFile));
    try {
        if (!m_link)
            m_link = std::make_unique<HttpLink>(m_target.address, m_target.authority, forwardBounds, isStopping);
        HttpAnswer answer = m_link->ask(question, isStopping);
        if (!m_link->isOpen()) m_link.reset();
        const std::int64_t seconds = std::max<std::int64_t>(parseInt64(answer.retryAfter).value_or(0), 0);
        return {answer.status, std::move(answer.body), static_cast<std::uint64_t>(seconds)};
    } catch (...) {
        m_link.reset();
        throw;
    }
}

}  // namespace QOR
