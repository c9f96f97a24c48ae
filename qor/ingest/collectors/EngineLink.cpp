#include "ingest/collectors/EngineLink.h"

#include <system_error>
#include <utility>

#include "QORCommon/QORException.h"
#include "ingest/collectors/ContainerEngine.h"

namespace QOR {
namespace {

constexpr HttpLink::Bounds engineBounds{.connect = std::chrono::seconds(2),
                                        .send = std::chrono::seconds(2),
                                        .answer = std::chrono::seconds(10),
                                        .body = std::uint64_t{16} << 20};

}  // namespace

EngineLink::EngineLink(const std::filesystem::path& socket, std::function<bool()> isStopping)
    : m_address(unixAddress(socket.string())), m_isStopping(std::move(isStopping)) {
    connect();
}

std::unique_ptr<EngineLink> EngineLink::open(const std::filesystem::path& socket, std::function<bool()> isStopping) {
    try {
        return std::unique_ptr<EngineLink>(new EngineLink(socket, std::move(isStopping)));
    } catch (const HttpLost& lost) {
        const bool isNobodyThere = lost.code() == std::errc::no_such_file_or_directory ||
                                   lost.code() == std::errc::not_a_directory ||
                                   lost.code() == std::errc::connection_refused;
        if (!isNobodyThere) throw;
        return nullptr;
    }
}

void EngineLink::connect() {
    m_link.reset();
    m_link = std::make_unique<HttpLink>(m_address, std::string(), engineBounds, m_isStopping);
}

HttpAnswer EngineLink::get(const std::string& path) {
    if (!m_link || !m_link->isOpen()) connect();
    try {
        return m_link->ask({.method = "GET", .path = path}, m_isStopping);
    } catch (...) {
        m_link.reset();
        throw;
    }
}

const JsonValue* EngineLink::find(const std::string& path) {
    HttpAnswer answer = get(path);
    if (answer.status == 404) return nullptr;
    if (answer.status != 200) throw ContainerFailure(path + " is answered with " + std::to_string(answer.status));
    m_body = std::move(answer.body);
    try {
        return &m_json.parse(m_body);
    } catch (const QORException& failure) {
        throw ContainerFailure(path + ": " + failure.message());
    }
}

const JsonValue& EngineLink::ask(const std::string& path) {
    const JsonValue* const answer = find(path);
    if (answer == nullptr) throw ContainerFailure(path + " is not there");
    return *answer;
}

}  // namespace QOR
