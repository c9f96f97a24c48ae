#include "ingest/collectors/LibvirtConnection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <set>
#include <utility>

#include "QORCommon/QORUtf8.h"

namespace QOR {
namespace {

const LibvirtLibrary& libvirt() {
    return LibvirtLibrary::instance();
}

/// A list that the library made, with what is in it.
template <class Object>
class LibvirtList {
public:
    /// \param function fills it, as one that lists all of something \param what for people
    template <class Function, class Owner>
    LibvirtList(Function* function, Owner* owner, unsigned flags, const std::string& what) {
        Object** all = nullptr;
        const int count = function(owner, &all, flags);
        if (count < 0) throw LibvirtFailure::last(what);
        for (int i = 0; i < count; ++i)
            handles.emplace_back(all[i]);
        std::free(all);  // NOLINT(cppcoreguidelines-no-malloc): the library asks for it
    }

    std::vector<LibvirtHandle<Object>> handles;
};

/// A text that the library made. \param text null where it failed
std::string takeText(char* text, const std::string& what) {
    if (text == nullptr) throw LibvirtFailure::last(what);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    std::string taken(text);
    if (taken.size() > LibvirtConnection::mostBytes)
        throw LibvirtFailure(what + ": it has more than " + std::to_string(LibvirtConnection::mostBytes) + " bytes", 0,
                             0);
    return taken;
}

std::string textOrNothing(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

QOREID eidOf(virDomainPtr domain) {
    std::array<char, VIR_UUID_STRING_BUFLEN> text{};
    QOREID eid;
    if (libvirt().domainGetUuidString(domain, text.data()) == 0) eid.fromString(text.data());
    return eid;
}

/// Which domains have a mark; none where the hypervisor does not know of it.
std::set<QOREID> marked(virConnectPtr connection, unsigned mark) {
    std::set<QOREID> eids;
    try {
        for (const auto& domain :
             LibvirtList<virDomain>(libvirt().connectListAllDomains, connection, mark, "the domains").handles)
            eids.insert(eidOf(domain.get()));
    } catch (const LibvirtFailure&) {
        if (libvirt().connectIsAlive(connection) != 1) throw;
    }
    return eids;
}

/// Nothing is there to be asked, as against something that cannot be.
bool isNotThere(const LibvirtFailure& failure) {
    return failure.code() == VIR_ERR_NO_CONNECT || failure.system() == ENOENT;
}

LibvirtHandle<virDomainSnapshot> currentSnapshot(virDomainPtr domain) {
    return LibvirtHandle<virDomainSnapshot>(libvirt().domainSnapshotCurrent(domain, 0));
}

/// The savings of a domain, with what is asked of each. \param name, read functions of a handle
template <class Object, class Name, class Read>
std::vector<LibvirtSaving> savingsOf(const LibvirtList<Object>& list, std::size_t most, Name name, Read read) {
    std::vector<std::pair<std::string, Object*>> named;
    for (const auto& handle : list.handles)
        named.emplace_back(textOrNothing(name(handle.get())), handle.get());
    std::sort(named.begin(), named.end());
    if (named.size() > most) named.resize(most);
    std::vector<LibvirtSaving> savings;
    for (const auto& [text, handle] : named) {
        std::string definition = takeText(read(handle), "the definition of " + toUtf8(text));
        savings.push_back({text, std::move(definition)});
    }
    return savings;
}

}  // namespace

std::unique_ptr<LibvirtConnection> LibvirtConnection::open(const std::string& uri) {
    LibvirtHandle<virConnect> handle(libvirt().connectOpenReadOnly(uri.c_str()));
    if (handle != nullptr) return std::unique_ptr<LibvirtConnection>(new LibvirtConnection(std::move(handle)));
    const LibvirtFailure failure = LibvirtFailure::last("it cannot be reached");
    if (isNotThere(failure)) return nullptr;
    throw failure;
}

bool LibvirtConnection::isAlive() const {
    return libvirt().connectIsAlive(m_handle.get()) == 1;
}

std::vector<LibvirtDomain> LibvirtConnection::domains() const {
    virConnectPtr connection = m_handle.get();
    LibvirtList<virDomain> all(libvirt().connectListAllDomains, connection, 0, "the domains cannot be listed");
    const std::set<QOREID> persistent = marked(connection, VIR_CONNECT_LIST_DOMAINS_PERSISTENT);
    const std::set<QOREID> saved = marked(connection, VIR_CONNECT_LIST_DOMAINS_MANAGEDSAVE);
    const std::set<QOREID> withSnapshots = marked(connection, VIR_CONNECT_LIST_DOMAINS_HAS_SNAPSHOT);
    const std::set<QOREID> withCheckpoints = marked(connection, VIR_CONNECT_LIST_DOMAINS_HAS_CHECKPOINT);
    std::vector<LibvirtDomain> domains;
    for (auto& handle : all.handles) {
        LibvirtDomain domain;
        domain.eid = eidOf(handle.get());
        if (!domain.eid.isValid()) continue;
        domain.name = textOrNothing(libvirt().domainGetName(handle.get()));
        if (domain.name.empty()) domain.name = domain.eid.toString();
        domain.id = static_cast<int>(libvirt().domainGetId(handle.get()));
        domain.isPersistent = persistent.contains(domain.eid);
        domain.isSaved = saved.contains(domain.eid);
        domain.hasSnapshots = withSnapshots.contains(domain.eid);
        domain.hasCheckpoints = withCheckpoints.contains(domain.eid);
        domain.handle = std::move(handle);
        domains.push_back(std::move(domain));
    }
    return domains;
}

LibvirtState LibvirtConnection::state(const LibvirtDomain& domain) const {
    LibvirtState state;
    if (libvirt().domainGetState(domain.handle.get(), &state.state, &state.reason, 0) < 0)
        throw LibvirtFailure::last("its state");
    if (domain.id < 0 || !m_tellsJobs) return state;
    int type = VIR_DOMAIN_JOB_NONE;
    virTypedParameterPtr parameters = nullptr;
    int count = 0;
    if (libvirt().domainGetJobStats(domain.handle.get(), &type, &parameters, &count, 0) < 0) {
        m_tellsJobs = LibvirtFailure::last("").code() != VIR_ERR_NO_SUPPORT;
        return state;
    }
    int operation = VIR_DOMAIN_JOB_OPERATION_UNKNOWN;
    if (type != VIR_DOMAIN_JOB_NONE &&
        libvirt().typedParamsGetInt(parameters, count, VIR_DOMAIN_JOB_OPERATION, &operation) == 1)
        state.job = operation;
    libvirt().typedParamsFree(parameters, count);
    return state;
}

std::string LibvirtConnection::definition(const LibvirtDomain& domain, bool inactive) const {
    const unsigned flags = inactive ? VIR_DOMAIN_XML_INACTIVE : 0;
    return takeText(libvirt().domainGetXmlDesc(domain.handle.get(), flags), "its definition");
}

std::vector<std::string> LibvirtConnection::addresses(const LibvirtDomain& domain) const {
    std::vector<std::string> addresses;
    if (domain.id < 0) return addresses;
    virDomainInterfacePtr* interfaces = nullptr;
    // Hypervisors that lend none say that they do not know: it is no failure.
    const int count = libvirt().domainInterfaceAddresses(domain.handle.get(), &interfaces,
                                                         VIR_DOMAIN_INTERFACE_ADDRESSES_SRC_LEASE, 0);
    for (int i = 0; i < count; ++i) {
        const virDomainInterface& one = *interfaces[i];
        for (unsigned j = 0; j < one.naddrs; ++j)
            addresses.push_back(textOrNothing(one.addrs[j].addr));
        libvirt().domainInterfaceFree(interfaces[i]);
    }
    std::free(interfaces);  // NOLINT(cppcoreguidelines-no-malloc): the library asks for it
    return addresses;
}

std::vector<LibvirtSaving> LibvirtConnection::snapshots(const LibvirtDomain& domain, std::size_t most) const {
    if (!domain.hasSnapshots) return {};
    std::vector<LibvirtSaving> savings = savingsOf(
        LibvirtList<virDomainSnapshot>(libvirt().domainListAllSnapshots, domain.handle.get(), 0, "its snapshots"), most,
        libvirt().domainSnapshotGetName,
        [](virDomainSnapshotPtr one) { return libvirt().domainSnapshotGetXmlDesc(one, 0); });
    const LibvirtHandle<virDomainSnapshot> current = currentSnapshot(domain.handle.get());
    if (current == nullptr) return savings;
    const std::string name = textOrNothing(libvirt().domainSnapshotGetName(current.get()));
    for (LibvirtSaving& saving : savings)
        saving.isCurrent = saving.name == name;
    return savings;
}

std::vector<LibvirtSaving> LibvirtConnection::checkpoints(const LibvirtDomain& domain, std::size_t most) const {
    if (!domain.hasCheckpoints) return {};
    return savingsOf(
        LibvirtList<virDomainCheckpoint>(libvirt().domainListAllCheckpoints, domain.handle.get(), 0, "its checkpoints"),
        most, libvirt().domainCheckpointGetName, [](virDomainCheckpointPtr one) {
            return libvirt().domainCheckpointGetXmlDesc(one, VIR_DOMAIN_CHECKPOINT_XML_NO_DOMAIN);
        });
}

}  // namespace QOR
