/// \file
/// The collector "libvirt": the domains of this machine's hypervisors.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Domains are environments below the machine; what they are and what they are meant to be, their snapshots and
/// checkpoints as backups, what happens to them as operations and events. The position has what has been told of each
/// (LibvirtPlace), so that what is as it was is not told again.
class LibvirtCollector final : public QORCollector {
public:
    /// What a run looks at and tells at most.
    struct Bounds {
        std::size_t domains = 10'000;
        std::size_t backups = 1'000;  ///< snapshots of one domain, and checkpoints
        std::size_t changes = 1'000;
        std::size_t ofOne = 200;  ///< of these about one domain
    };

    LibvirtCollector();
    explicit LibvirtCollector(Bounds most);
    bool collect(QORCollection& collection) override;

    /// From the next run on these are asked, whatever the root is; none: those whose sockets are there. Any thread.
    /// \pre checkLibvirtSource()
    void setSources(std::vector<std::string> uris);

private:
    const Bounds m_most;
    std::mutex m_mutex;
    std::vector<std::string> m_uris;  ///< guarded by m_mutex
};

}  // namespace QOR
