/// \file
/// Machines of systemd, as systemd-machined tells of them on the system's bus.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ingest/collectors/ContainerEngine.h"
#include "ingest/collectors/SystemBus.h"

namespace QOR {

/// A machine is there as long as it runs or has an image of its name. Those that libvirt has registered are left to
/// it. The service ends by itself when there is nothing to do, and is not started for it, unless some were running when
/// they were seen last. Every method \throws SystemBusFailure, ContainerFailure
class MachinedEngine final : public ContainerEngine {
public:
    /// \returns null when the service does not run
    static std::unique_ptr<MachinedEngine> open(const ContainerSearch& search);

    std::vector<ListedContainer> containers(std::uint64_t& passedOver) override;
    std::optional<ContainerDetails> details(const ListedContainer& container) override;

private:
    struct Machine {
        std::string state{};
        std::string service{};
        std::string root{};
        std::uint64_t began = 0;  ///< in microseconds since the epoch
        bool isOther = false;     ///< this machine, or one that another collector tells of
    };
    struct Image {
        std::string type{};
        std::uint64_t made = 0;  ///< in microseconds since the epoch; 0: not known
    };

    explicit MachinedEngine(std::unique_ptr<SystemBus> bus) : m_bus(std::move(bus)) {}
    void list(bool mayStart);
    void listImages();
    std::optional<Machine> machine(const std::string& path);
    std::vector<std::string> addresses(const std::string& name);
    void describeSystem(const std::string& name, ContainerDetails& details);

    const std::unique_ptr<SystemBus> m_bus;
    std::map<std::string, std::pair<std::string, bool>, std::less<>> m_listed;  ///< paths, and which are VMs, by name
    std::map<std::string, Machine, std::less<>> m_machines;
    std::map<std::string, Image, std::less<>> m_images;
};

}  // namespace QOR
