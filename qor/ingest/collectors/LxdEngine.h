/// \file
/// LXD, asked at its socket.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ingest/collectors/ContainerEngine.h"
#include "ingest/collectors/EngineLink.h"

namespace QOR {

/// Instances of all projects, of a cluster those of this machine. Every method \throws HttpLost when nobody answers,
/// ContainerFailure
class LxdEngine final : public ContainerEngine {
public:
    /// \returns null when nobody listens at any of its sockets
    static std::unique_ptr<LxdEngine> open(const ContainerSearch& search);

    std::vector<ListedContainer> containers(std::uint64_t& passedOver) override;
    std::optional<ContainerDetails> details(const ListedContainer& container) override;
    std::vector<ContainerImage> images(std::uint64_t& passedOver) override;

private:
    explicit LxdEngine(std::unique_ptr<EngineLink> link) : m_link(std::move(link)) {}
    void readServer();
    const JsonValue* find(const std::string& path);
    const JsonValue& list(const std::string& path);

    const std::unique_ptr<EngineLink> m_link;
    std::string m_place;  ///< the name of this machine in its cluster; empty outside of one
};

}  // namespace QOR
