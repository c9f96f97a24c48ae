/// \file
/// Docker and Podman, which answer alike at their sockets.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ingest/collectors/ContainerEngine.h"
#include "ingest/collectors/EngineLink.h"

namespace QOR {

/// Every method \throws HttpLost when nobody answers, ContainerFailure
class DockerEngine final : public ContainerEngine {
public:
    /// \returns null when nobody listens there
    static std::unique_ptr<DockerEngine> open(const std::filesystem::path& socket, std::function<bool()> isStopping);

    bool isPodman() const noexcept { return m_isPodman; }
    bool hasOwnIds() const noexcept override { return true; }
    bool tellsEvents() const noexcept override { return true; }
    bool takesEnds() const noexcept override { return !m_isPodman; }
    std::vector<ListedContainer> containers(std::uint64_t& passedOver) override;
    std::optional<ContainerDetails> details(const ListedContainer& container) override;
    std::vector<ContainerEvent> events(std::int64_t since, std::int64_t until, std::uint64_t& passedOver) override;

private:
    explicit DockerEngine(std::unique_ptr<EngineLink> link);
    void readVersion();

    const std::unique_ptr<EngineLink> m_link;
    std::string m_version;  ///< of what is asked: "/v1.41"
    bool m_isPodman = false;
};

}  // namespace QOR
