#include "ingest/QORMachine.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/utsname.h>

#include <fstream>
#include <map>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// The namespace of identifiers that are made from a machine's own.
const QORGUIDBase& machineSpace() {
    static const QORGUIDBase space = *QORGUIDBase::parse("6f1a7d52-90c4-4c0b-8f0e-3b5d9a2c7e41");
    return space;
}

constexpr std::int32_t stateRunning = 6;

std::string trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

std::string firstLine(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return trimmed(line);
}

std::optional<std::string> orNothing(std::string text) {
    if (text.empty() || !isUtf8(text)) return std::nullopt;
    return text;
}

/// The value as the shell that the file is written for would read it: without quotes and backslashes.
std::string unquoted(std::string_view value) {
    if (value.size() < 2 || (value.front() != '"' && value.front() != '\'') || value.back() != value.front()) {
        return std::string(value);
    }
    std::string text;
    for (std::size_t i = 1; i + 1 < value.size(); ++i) {
        if (value[i] == '\\' && i + 2 < value.size()) ++i;
        text += value[i];
    }
    return text;
}

std::map<std::string, std::string> readRelease(const std::filesystem::path& root) {
    std::ifstream file(root / "etc/os-release");
    if (!file) file.open(root / "usr/lib/os-release");
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(file, line);) {
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos && line.front() != '#') {
            values[line.substr(0, equals)] = unquoted(trimmed(line.substr(equals + 1)));
        }
    }
    return values;
}

/// The number after a key at the start of a line, as /proc writes them.
std::optional<std::int64_t> procNumber(const std::filesystem::path& path, std::string_view key) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(key)) continue;
        const std::string rest = trimmed(std::string_view(line).substr(key.size()));
        return parseInt64(std::string_view(rest).substr(0, rest.find(' ')));
    }
    return std::nullopt;
}

/// \returns the address's text; empty for what is no address of this machine in its network
std::string addressText(const ifaddrs& entry) {
    if (entry.ifa_addr == nullptr || (entry.ifa_flags & IFF_LOOPBACK) != 0) return {};
    char text[INET6_ADDRSTRLEN] = {};
    if (entry.ifa_addr->sa_family == AF_INET) {
        const auto* address = reinterpret_cast<const sockaddr_in*>(entry.ifa_addr);
        inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
    } else if (entry.ifa_addr->sa_family == AF_INET6) {
        const auto* address = reinterpret_cast<const sockaddr_in6*>(entry.ifa_addr);
        if (IN6_IS_ADDR_LINKLOCAL(&address->sin6_addr)) return {};  // says nothing without its interface
        inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof text);
    }
    return text;
}

/// IPv4 before IPv6, otherwise in the system's order.
std::vector<std::string> machineAddresses() {
    std::vector<std::string> addresses;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return addresses;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, &freeifaddrs);
    for (const int family : {AF_INET, AF_INET6}) {
        for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
            if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != family) continue;
            std::string address = addressText(*entry);
            if (!address.empty()) addresses.push_back(std::move(address));
        }
    }
    return addresses;
}

std::string machineId(const std::filesystem::path& root) {
    for (const char* file : {"etc/machine-id", "var/lib/dbus/machine-id"}) {
        std::string id = firstLine(root / file);
        if (!id.empty() && id != "uninitialized") return id;
    }
    return {};
}

using Texts = std::map<QOREnvMember, std::optional<std::string>>;

/// Adds the members of a group that are known.
void addMembers(QORInfo& document, std::string_view group, const Texts& texts) {
    for (const QOREnvMemberRow& row : envMembers) {
        if (row.group != group) continue;
        const auto text = texts.find(row.member);
        if (text != texts.end() && text->second) document.add(std::string(row.name), *text->second);
    }
}

Texts describeTexts(const std::filesystem::path& root, const std::string& hostname) {
    using Member = QOREnvMember;
    utsname system{};
    uname(&system);
    auto release = readRelease(root);
    const std::string kernel = firstLine(root / "proc/sys/kernel/osrelease");
    const std::size_t dot = hostname.find('.');
    return {
        {Member::Name, orNothing(hostname)},
        {Member::Description, orNothing(release["PRETTY_NAME"])},
        {Member::Domain, dot == std::string::npos ? std::nullopt : orNothing(hostname.substr(dot + 1))},
        {Member::Hostname, orNothing(hostname)},
        {Member::Architecture, orNothing(system.machine)},
        {Member::Type, "host"},
        {Member::OsName, orNothing(release.contains("NAME") ? release["NAME"] : system.sysname)},
        {Member::OsPlatform, "linux"},
        {Member::OsVersion, orNothing(release["VERSION_ID"])},
        {Member::OsKernel, orNothing(kernel.empty() ? system.release : kernel)},
    };
}

/// As a record that came as a line would have it.
QORConfigRecord describeConfig(const std::filesystem::path& root, const std::string& hostname) {
    const Texts texts = describeTexts(root, hostname);
    QORInfo document;
    addMembers(document, {}, texts);
    QORInfo os("os");
    addMembers(os, os.name(), texts);
    document.add(std::move(os));
    const std::vector<std::string> addresses = machineAddresses();
    for (const std::string& address : addresses)
        document.add("ip", address);
    std::optional<std::int64_t> memory = procNumber(root / "proc/meminfo", "MemTotal:");
    if (memory) *memory /= 1024;
    if (memory) document.add("memory", std::to_string(*memory));
    const std::optional<std::int64_t> bootTime = procNumber(root / "proc/stat", "btime ");
    if (bootTime) document.add("boot_time", std::to_string(*bootTime));
    QORConfigRecord config(std::move(document));
    config.addresses = addresses;
    config.memory = memory;
    config.bootTime = bootTime;
    return config;
}

std::string hostNameOf(const std::filesystem::path& root) {
    for (const char* file : {"proc/sys/kernel/hostname", "etc/hostname"}) {
        std::string name = firstLine(root / file);
        if (!name.empty() && isUtf8(name)) return name;
    }
    utsname system{};
    return uname(&system) == 0 ? std::string(system.nodename) : std::string();
}

}  // namespace

QOREnvironmentRecord describeMachine(const std::filesystem::path& root) {
    const std::string hostname = hostNameOf(root);
    const std::string id = machineId(root);
    QOREnvironmentRecord record;
    record.eid = QOREID(QORGUIDBase::fromName(machineSpace(), id.empty() ? "host name " + hostname : "machine " + id));
    record.title = orNothing(hostname);
    record.state = stateRunning;
    record.config = describeConfig(root, hostname);
    return record;
}

}  // namespace QOR
