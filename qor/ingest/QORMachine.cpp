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

void add(QORInfo& document, const char* name, const std::optional<std::string>& value) {
    if (value) document.add(name, *value);
}

/// The members as a record that came as a line would have them.
QORInfo documentOf(const QORConfigRecord& config) {
    QORInfo document;
    add(document, "name", config.name);
    add(document, "description", config.description);
    add(document, "domain", config.domain);
    add(document, "hostname", config.hostname);
    add(document, "architecture", config.architecture);
    add(document, "type", config.type);
    QORInfo os("os");
    add(os, "name", config.osName);
    add(os, "platform", config.osPlatform);
    add(os, "version", config.osVersion);
    add(os, "kernel", config.osKernel);
    document.add(std::move(os));
    for (const std::string& address : config.addresses)
        document.add("ip", address);
    if (config.memory) document.add("memory", std::to_string(*config.memory));
    if (config.bootTime) document.add("boot_time", std::to_string(*config.bootTime));
    return document;
}

QORConfigRecord describeConfig(const std::filesystem::path& root, const std::string& hostname) {
    utsname system{};
    uname(&system);
    auto release = readRelease(root);
    QORConfigRecord config;
    config.name = orNothing(hostname);
    config.description = orNothing(release["PRETTY_NAME"]);
    const std::size_t dot = hostname.find('.');
    if (dot != std::string::npos) config.domain = orNothing(hostname.substr(dot + 1));
    config.hostname = orNothing(hostname);
    config.architecture = orNothing(system.machine);
    config.type = "host";
    config.osName = orNothing(release.contains("NAME") ? release["NAME"] : system.sysname);
    config.osPlatform = "linux";
    config.osVersion = orNothing(release["VERSION_ID"]);
    const std::string kernel = firstLine(root / "proc/sys/kernel/osrelease");
    config.osKernel = orNothing(kernel.empty() ? system.release : kernel);
    config.addresses = machineAddresses();
    if (const auto kib = procNumber(root / "proc/meminfo", "MemTotal:")) config.memory = *kib / 1024;
    config.bootTime = procNumber(root / "proc/stat", "btime ");
    config.document = documentOf(config);
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
