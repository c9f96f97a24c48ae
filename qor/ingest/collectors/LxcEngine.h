/// \file
/// Containers that LXC's own programs run, without a daemon.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ingest/collectors/ContainerEngine.h"

namespace QOR {

/// What there is stands in var/lib/lxc; what runs listens at a socket of its own, which is seen in proc/net/unix; what
/// is frozen shows in its control group. The sockets are not asked, which takes a container's own user.
class LxcEngine final : public ContainerEngine {
public:
    /// \returns null where there are no containers and have been none \throws ContainerFailure
    static std::unique_ptr<LxcEngine> open(const ContainerSearch& search);

    std::vector<ListedContainer> containers(std::uint64_t& passedOver) override;
    std::optional<ContainerDetails> details(const ListedContainer& container) override;

private:
    LxcEngine(std::filesystem::path root, std::vector<std::string> names);
    struct Group {
        std::string id;
        std::int64_t began = 0;  ///< seconds since the epoch
        bool isFrozen = false;
    };
    void readGroups();
    void readGroup(const std::filesystem::path& group, std::string name);
    std::filesystem::path folderOf(const std::string& name) const;

    const std::filesystem::path m_root;
    const std::vector<std::string> m_names;
    std::map<std::string, Group, std::less<>> m_groups;  ///< by the names of containers
};

}  // namespace QOR
