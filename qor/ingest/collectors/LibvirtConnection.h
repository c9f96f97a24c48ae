/// \file
/// A hypervisor's domains, as libvirt tells of them.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "ingest/collectors/LibvirtLibrary.h"

namespace QOR {

/// How a domain is, in the library's numbers.
struct LibvirtState {
    int state = VIR_DOMAIN_NOSTATE;
    int reason = 0;
    std::optional<int> job;  ///< what is being done to it (virDomainJobOperation)
};

/// A domain as it was listed.
struct LibvirtDomain {
    LibvirtHandle<virDomain> handle;
    QOREID eid;  ///< its own identifier
    std::string name;
    int id = -1;                ///< another one each time it is started; -1: it is not active
    bool isPersistent = false;  ///< it is defined, whether it is active or not
    bool isSaved = false;       ///< its memory is on disk, and is taken up when it is started
    bool hasSnapshots = false;
    bool hasCheckpoints = false;
};

/// A snapshot or checkpoint.
struct LibvirtSaving {
    std::string name;
    std::string definition;  ///< as XML
    bool isCurrent = false;  ///< the domain goes on from it
};

/// Open for reading. Used by one thread. What is asked takes as long as its daemon does. Functions throw
/// LibvirtFailure.
class LibvirtConnection {
public:
    /// More than this a definition does not have, nor a domain of savings: the rest is not looked at.
    static constexpr std::size_t mostBytes = std::size_t{4} << 20;

    /// \returns null where there is no such hypervisor here
    static std::unique_ptr<LibvirtConnection> open(const std::string& uri);

    /// False when nothing more can be asked.
    bool isAlive() const;
    /// All that there are, active or not.
    std::vector<LibvirtDomain> domains() const;

    // Of a domain.
    LibvirtState state(const LibvirtDomain& domain) const;
    /// \param inactive what it will be when it is started the next time, instead of what it is
    /// \returns XML
    std::string definition(const LibvirtDomain& domain, bool inactive) const;
    /// Those that the networks of this machine have lent it; none where that is not known.
    std::vector<std::string> addresses(const LibvirtDomain& domain) const;
    /// Sorted by name. \param most further ones are left out
    std::vector<LibvirtSaving> snapshots(const LibvirtDomain& domain, std::size_t most) const;
    std::vector<LibvirtSaving> checkpoints(const LibvirtDomain& domain, std::size_t most) const;

private:
    explicit LibvirtConnection(LibvirtHandle<virConnect> handle) : m_handle(std::move(handle)) {}

    const LibvirtHandle<virConnect> m_handle;
    mutable bool m_tellsJobs = true;
};

}  // namespace QOR
