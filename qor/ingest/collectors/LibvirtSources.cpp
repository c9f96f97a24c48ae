#include "ingest/collectors/LibvirtSources.h"

#include <algorithm>
#include <array>
#include <optional>
#include <system_error>

#include "QORCommon/QORException.h"
#include "QORCommon/QORPercent.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// A hypervisor whose domains are the machine's, with the socket of its own daemon. An older one serves them all.
struct KnownHypervisor {
    std::string_view driver;
    std::string_view socket;
};
constexpr std::array<KnownHypervisor, 3> knownHypervisors{{
    {"qemu", "virtqemud-sock-ro"},
    {"xen", "virtxend-sock-ro"},
    {"lxc", "virtlxcd-sock-ro"},
}};
constexpr std::string_view socketOfAll = "libvirt-sock-ro";

std::optional<std::filesystem::path> socketOf(const std::filesystem::path& folder, const KnownHypervisor& hypervisor) {
    for (const std::string_view name : {hypervisor.socket, socketOfAll}) {
        std::error_code error;
        if (std::filesystem::is_socket(folder / name, error)) return folder / name;
    }
    return std::nullopt;
}

[[noreturn]] void refuseSource(const std::string& uri, const std::string& why) {
    throw QORException(errBadRequest, quoteText(uri) + " " + why, QOR_SOURCE_PATH);
}

}  // namespace

std::vector<LibvirtSource> findLibvirtSources(const std::filesystem::path& root) {
    std::vector<LibvirtSource> sources;
    for (const KnownHypervisor& one : knownHypervisors) {
        const auto socket = socketOf(root / "run/libvirt", one);
        if (!socket) continue;
        const std::string driver(one.driver);
        sources.push_back(
            {driver + ":///system", driver + "+unix:///system?socket=" + percentEscaped(socket->string())});
    }
    return sources;
}

void checkLibvirtSource(const std::string& uri) {
    const std::size_t colon = uri.find("://");
    if (colon == 0 || colon == std::string::npos) refuseSource(uri, "is no address such as qemu:///system");
    const std::string_view scheme = std::string_view(uri).substr(0, colon);
    const std::string_view transport = scheme.substr(std::min(scheme.find('+'), scheme.size()));
    const std::string_view rest = std::string_view(uri).substr(colon + 3);
    if (!rest.starts_with('/') || (!transport.empty() && transport != "+unix"))
        refuseSource(uri, "is not of this machine: three slashes, and no other way than +unix");
    const std::string_view path = rest.substr(0, rest.find('?'));
    if (path == "/session" || path == "/embed") refuseSource(uri, "needs a program that is run for it");
}

}  // namespace QOR
