/// \file
/// The host in this process: no agent, no socket, full access.
#pragma once

#include "backend/Backend.h"

namespace QOR {

class QORHost;
class QORClientSession;
class QORCollectorSchedule;

/// Overrides what the agent's backend does, in the same order.
class StandaloneBackend final : public Backend {
public:
    StandaloneBackend(const ConnectionOptions& options, BackendUse use);
    ~StandaloneBackend() override;

    bool seesEnvironments() override { return true; }
    std::unique_ptr<AnswerSource> ask(std::string_view request) override;
    std::unique_ptr<AnswerSource> get(const std::string& target) override;
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
    class Source;
    QORIngest m_ingest;
    std::unique_ptr<QORCollectorSchedule> m_collectors;  ///< where one hangs, destroying it waits
    std::unique_ptr<QORHost> m_host;                     ///< where requests are asked
    std::unique_ptr<QORClientSession> m_session;         ///< gone before the host
};

}  // namespace QOR
