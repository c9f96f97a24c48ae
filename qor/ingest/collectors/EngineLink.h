/// \file
/// Questions to an engine that answers JSON over HTTP at a socket.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "QORCommon/QORAgentAddress.h"
#include "httpclient/HttpLink.h"
#include "ingest/JsonTree.h"

namespace QOR {

/// A connection that is made again where the engine ends it. Used by one thread. Waits for an answer for some seconds,
/// and no longer than its owner wants. Methods throw HttpLost when nobody answers.
class EngineLink {
public:
    /// \returns null when nobody listens there
    static std::unique_ptr<EngineLink> open(const std::filesystem::path& socket, std::function<bool()> isStopping);

    HttpAnswer get(const std::string& path);
    /// What is answered; good until the next question. \returns null where there is no such thing
    /// \throws ContainerFailure where it is answered with anything but JSON
    const JsonValue* find(const std::string& path);
    /// \throws ContainerFailure also where there is no such thing
    const JsonValue& ask(const std::string& path);
    /// That the last answer is a part of.
    const JsonTree& json() const noexcept { return m_json; }
    JsonTree& json() noexcept { return m_json; }

private:
    EngineLink(const std::filesystem::path& socket, std::function<bool()> isStopping);
    void connect();

    const QORAgentAddress m_address;
    const std::function<bool()> m_isStopping;
    std::unique_ptr<HttpLink> m_link;
    std::string m_body;
    JsonTree m_json;
};

}  // namespace QOR
