/// \file
/// The agent, over HTTP/1.1. The connection is kept from request to request. A request that may be
/// asked again, and that the agent turns down for a while, is asked again, a few times and as much later as it says.
#pragma once

#include "backend/AgentChannel.h"
#include "backend/Backend.h"

namespace QOR {

/// Overrides what the standalone backend does, in the same order.
class AgentBackend final : public Backend {
public:
    /// Connects.
    explicit AgentBackend(AgentPlace place);
    ~AgentBackend() override;

    bool seesEnvironments() override;
    std::unique_ptr<AnswerSource> ask(std::string_view request) override;
    std::unique_ptr<AnswerSource> get(const std::string& target) override;
    /// A thread of its own sends the requests ahead, so that neither side waits for the other.
    void answerLines(int input, LineAnswers& answers) override;
    std::unique_ptr<AnswerSource> exportRecords(const QORExportPosition& position) override;
    QORIngestResult importBatch(std::string_view lines, std::uint64_t firstLine) override;
    QORCollectResult collect(const std::stop_token& stop) override;
    std::vector<QORViewColumn> views() override;
    QORPtr<const QORVocMap> vocabulary() override;
    BackendStatus status() override;
    std::vector<QORCheckFinding> check(const std::string& part, bool mend) override;
    Pruned prune(const std::string& kind, std::int64_t before, bool unsent) override;
    QORIdentityList identities() override;
    void addIdentity(const QORIdentity& identity) override;
    void removeIdentity(const std::string& name) override;
    std::string createToken(const QORTokenRequest& request) override;
    std::uint64_t revokeTokens(const QORTokenRequest& request) override;

private:
    class Connection;
    class Source;
    class Pipeline;
    struct Request;

    /// Sends a request, again where that may be. \returns the answer, whose body is to be read
    std::unique_ptr<Source> open(const Request& request);
    std::string change(const std::string& target, const std::string& body);
    /// \returns the answer's body
    std::string exchange(const Request& request);

    const AgentPlace m_place;
    std::unique_ptr<Connection> m_connection;  // null while an agent that was lost is not found again
};

}  // namespace QOR
