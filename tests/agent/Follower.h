/// \file
/// A client that follows records, as the agent tells them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"

namespace QOR::test {

struct Event {
    std::string name;
    std::string id;
    std::string data;
    std::string at(const std::string& path) const { return jsonAt(data, path); }
};

/// A client that follows.
class Follower {
public:
    Follower(const AgentProcess& agent, const std::string& query, const std::string& fields = {})
        : Follower(HttpClient(agent.socketPath()), query, fields) {}
    /// \param client a connection that has not been used
    Follower(HttpClient client, const std::string& query, const std::string& fields) : m_client(std::move(client)) {
        m_client.send(HttpClient::compose("GET", "/v1/follow" + query, {}, fields));
        const HttpAnswer head = m_client.receiveHead();
        if (head.status != 200) throw std::runtime_error("not followed: " + std::to_string(head.status));
        EXPECT_EQ(head.headers.at("content-type"), "text/event-stream");
        EXPECT_EQ(next().name, "open");
    }

    /// The next event; one without a name at the end of the stream, or where the connection broke.
    Event next() {
        while (m_text.find("\n\n") == std::string::npos) {
            const std::string chunk = takeChunk();
            if (chunk.empty()) return {};
            m_text += chunk;
        }
        const std::size_t end = m_text.find("\n\n");
        Event event;
        for (std::size_t at = 0; at < end;) {
            const std::size_t line = std::min(m_text.find('\n', at), end);
            const std::string text = m_text.substr(at, line - at);
            if (text.starts_with("event: ")) event.name = text.substr(7);
            if (text.starts_with("id: ")) event.id = text.substr(4);
            if (text.starts_with("data: ")) event.data = text.substr(6);
            at = line + 1;
        }
        m_text.erase(0, end + 2);
        if (!event.id.empty()) m_last = event.id;
        return event;
    }
    /// The values of a member of records up to the end of the past, or of so many records.
    std::vector<std::string> take(const std::string& member, std::optional<std::size_t> most = std::nullopt) {
        std::vector<std::string> values;
        while (!most || values.size() < *most) {
            const Event event = next();
            if (event.name == "heartbeat") continue;
            if (event.name.empty() || event.name == "live" || event.name == "gap" || event.name == "end") {
                if (event.name != "live" || most) values.push_back(event.name);
                break;
            }
            values.push_back(event.at(member));
        }
        return values;
    }
    /// The token of the last event that had one.
    const std::string& last() const { return m_last; }

private:
    std::string takeChunk() {
        try {
            return m_client.receiveChunk();
        } catch (const std::exception&) {
            return {};
        }
    }

    HttpClient m_client;
    std::string m_text;
    std::string m_last;
};

}  // namespace QOR::test
