/// \file
/// The functions of libvirt's client library, and what they hand out.
#pragma once

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "ingest/collectors/LoadedLibrary.h"

namespace QOR {

/// What the library did not do, with its reason.
class LibvirtFailure : public std::runtime_error {
public:
    /// \param code the library's; 0 for what it did not say itself \param system errno, where that is the reason
    LibvirtFailure(const std::string& text, int code, int system)
        : runtime_error(text), m_code(code), m_system(system) {}
    /// As the calling thread's last call left it. \param what was wanted
    static LibvirtFailure last(const std::string& what);

    int code() const noexcept { return m_code; }
    int system() const noexcept { return m_system; }

private:
    int m_code;
    int m_system;
};

/// Loaded when the first hypervisor is asked: most machines have none. It says nothing on standard error, and stays
/// loaded. Thread-safe, as the library is.
class LibvirtLibrary : private LoadedLibrary {
public:
    /// \throws LibvirtFailure where it is not installed
    static const LibvirtLibrary& instance();

private:
    LibvirtLibrary();

public:
    // A member for each function that is used, with the function's name but for "vir".
    decltype(virInitialize)* const initialize = find<decltype(virInitialize)>("virInitialize");
    decltype(virSetErrorFunc)* const setErrorFunc = find<decltype(virSetErrorFunc)>("virSetErrorFunc");
    decltype(virGetLastError)* const getLastError = find<decltype(virGetLastError)>("virGetLastError");
    decltype(virConnectOpenReadOnly)* const connectOpenReadOnly =
        find<decltype(virConnectOpenReadOnly)>("virConnectOpenReadOnly");
    decltype(virConnectClose)* const connectClose = find<decltype(virConnectClose)>("virConnectClose");
    decltype(virConnectIsAlive)* const connectIsAlive = find<decltype(virConnectIsAlive)>("virConnectIsAlive");
    decltype(virConnectListAllDomains)* const connectListAllDomains =
        find<decltype(virConnectListAllDomains)>("virConnectListAllDomains");
    decltype(virDomainFree)* const domainFree = find<decltype(virDomainFree)>("virDomainFree");
    decltype(virDomainGetName)* const domainGetName = find<decltype(virDomainGetName)>("virDomainGetName");
    decltype(virDomainGetUUIDString)* const domainGetUuidString =
        find<decltype(virDomainGetUUIDString)>("virDomainGetUUIDString");
    decltype(virDomainGetID)* const domainGetId = find<decltype(virDomainGetID)>("virDomainGetID");
    decltype(virDomainGetState)* const domainGetState = find<decltype(virDomainGetState)>("virDomainGetState");
    decltype(virDomainGetXMLDesc)* const domainGetXmlDesc = find<decltype(virDomainGetXMLDesc)>("virDomainGetXMLDesc");
    decltype(virDomainGetJobStats)* const domainGetJobStats =
        find<decltype(virDomainGetJobStats)>("virDomainGetJobStats");
    decltype(virTypedParamsGetInt)* const typedParamsGetInt =
        find<decltype(virTypedParamsGetInt)>("virTypedParamsGetInt");
    decltype(virTypedParamsFree)* const typedParamsFree = find<decltype(virTypedParamsFree)>("virTypedParamsFree");
    decltype(virDomainInterfaceAddresses)* const domainInterfaceAddresses =
        find<decltype(virDomainInterfaceAddresses)>("virDomainInterfaceAddresses");
    decltype(virDomainInterfaceFree)* const domainInterfaceFree =
        find<decltype(virDomainInterfaceFree)>("virDomainInterfaceFree");
    decltype(virDomainListAllSnapshots)* const domainListAllSnapshots =
        find<decltype(virDomainListAllSnapshots)>("virDomainListAllSnapshots");
    decltype(virDomainSnapshotGetName)* const domainSnapshotGetName =
        find<decltype(virDomainSnapshotGetName)>("virDomainSnapshotGetName");
    decltype(virDomainSnapshotCurrent)* const domainSnapshotCurrent =
        find<decltype(virDomainSnapshotCurrent)>("virDomainSnapshotCurrent");
    decltype(virDomainSnapshotGetXMLDesc)* const domainSnapshotGetXmlDesc =
        find<decltype(virDomainSnapshotGetXMLDesc)>("virDomainSnapshotGetXMLDesc");
    decltype(virDomainSnapshotFree)* const domainSnapshotFree =
        find<decltype(virDomainSnapshotFree)>("virDomainSnapshotFree");
    decltype(virDomainListAllCheckpoints)* const domainListAllCheckpoints =
        find<decltype(virDomainListAllCheckpoints)>("virDomainListAllCheckpoints");
    decltype(virDomainCheckpointGetName)* const domainCheckpointGetName =
        find<decltype(virDomainCheckpointGetName)>("virDomainCheckpointGetName");
    decltype(virDomainCheckpointGetXMLDesc)* const domainCheckpointGetXmlDesc =
        find<decltype(virDomainCheckpointGetXMLDesc)>("virDomainCheckpointGetXMLDesc");
    decltype(virDomainCheckpointFree)* const domainCheckpointFree =
        find<decltype(virDomainCheckpointFree)>("virDomainCheckpointFree");
};

/// Gives back what the library handed out.
struct LibvirtFree {
    void operator()(virConnectPtr connection) const { LibvirtLibrary::instance().connectClose(connection); }
    void operator()(virDomainPtr domain) const { LibvirtLibrary::instance().domainFree(domain); }
    void operator()(virDomainSnapshotPtr one) const { LibvirtLibrary::instance().domainSnapshotFree(one); }
    void operator()(virDomainCheckpointPtr one) const { LibvirtLibrary::instance().domainCheckpointFree(one); }
};
template <class Object>
using LibvirtHandle = std::unique_ptr<Object, LibvirtFree>;

}  // namespace QOR
