/// \file
/// The collectors "docker", "podman", "machined", "lxc" and "lxd": the containers of an engine of this machine.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Containers are environments below the machine; what happens to them, and to images, is told as operations and
/// events. The position has what has been told (ContainerPlace), so that what is as it was is not told again.
class ContainerCollector final : public QORCollector {
public:
    /// Machined: machines of systemd. Lxc: those that LXC's own programs run. Lxd: those of its daemon.
    enum class Engine : std::uint8_t { Docker, Podman, Machined, Lxc, Lxd };
    /// What a run looks at and tells at most.
    struct Bounds {
        std::size_t containers = 2'000;
        std::size_t looks = 50;  ///< at containers that are as they were, in turns
        std::size_t images = 2'000;
        std::size_t changes = 1'000;
        std::size_t ofOne = 200;  ///< of these about one container or image
    };

    explicit ContainerCollector(Engine engine);
    ContainerCollector(Engine engine, Bounds most);
    bool collect(QORCollection& collection) override;

private:
    const Engine m_engine;
    const Bounds m_most;
};

}  // namespace QOR
