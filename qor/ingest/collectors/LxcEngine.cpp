#include "ingest/collectors/LxcEngine.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <string_view>
#include <system_error>

#include "QORCommon/QORNumbers.h"
#include "ingest/collectors/EscapedPath.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view folder = "var/lib/lxc";
constexpr std::size_t longestConfig = std::size_t{1} << 20;

/// The kernel keeps more than is asked for of a name that does not end: containers with longer ones listen at others.
std::string commandSocket(const std::string& name) {
    return "@/" + std::string(folder) + "/" + name + "/command";
}

/// Inodes of sockets that somebody listens at, by name. Lines are "NUMBER: REFERENCES PROTOCOL FLAGS TYPE STATE INODE
/// PATH".
std::map<std::string, std::string, std::less<>> listeners(const fs::path& root) {
    constexpr std::string_view isListening = "00010000";
    std::map<std::string, std::string, std::less<>> listeners;
    std::ifstream file(root / "proc/net/unix");
    for (std::string line; std::getline(file, line);) {
        std::vector<std::string_view> words;
        std::string_view rest = line;
        for (; words.size() < 7; rest.remove_prefix(std::min(rest.find(' '), rest.size()))) {
            rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
            words.push_back(rest.substr(0, rest.find(' ')));
        }
        if (words[3] != isListening || rest.empty()) continue;
        listeners.emplace(rest.substr(1), words[6]);
    }
    return listeners;
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text(longestConfig, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
    return text;
}

std::string_view trim(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

/// "536870912", or with a letter for powers of 1024; 0 for no limit.
std::int64_t limitOf(std::string_view text) {
    constexpr std::string_view powers = "KMGT";
    std::int64_t factor = 1;
    const std::size_t power = text.empty() ? std::string_view::npos : powers.find(text.back() & ~0x20);
    if (power != std::string_view::npos) {
        factor <<= 10 * (power + 1);
        text.remove_suffix(1);
    }
    const std::int64_t count = parseInt64(text).value_or(0);
    return count > 0 && count <= INT64_MAX / factor ? count * factor : 0;
}

/// Lines such as "lxc.uts.name = web", without what other files say that are named there.
void readConfig(std::string_view text, ContainerDetails& details) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = trim(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos || line.front() == '#') continue;
        const std::string_view key = trim(line.substr(0, equals));
        const std::string value(trim(line.substr(equals + 1)));
        if (key == "lxc.uts.name" || key == "lxc.utsname") details.hostname = value;
        if (key == "lxc.arch") details.architecture = value;
        if (key == "lxc.cgroup2.memory.max" || key == "lxc.cgroup.memory.limit_in_bytes")
            details.memory = limitOf(value);
        const bool isAddress =
            key.starts_with("lxc.net.") && (key.ends_with(".ipv4.address") || key.ends_with(".ipv6.address"));
        std::string address = value.substr(0, value.find_first_of("/ \t"));
        if (isAddress && !address.empty() && details.addresses.size() < mostContainerAddresses)
            details.addresses.push_back(std::move(address));
    }
}

}  // namespace

LxcEngine::LxcEngine(fs::path root, std::vector<std::string> names)
    : m_root(std::move(root)), m_names(std::move(names)) {}

std::unique_ptr<LxcEngine> LxcEngine::open(const ContainerSearch& search) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(search.root / folder, error), end; !error && entry != end;
         entry.increment(error)) {
        std::string name = entry->path().filename().string();
        std::error_code inside;
        if (name.starts_with('.') || !entry->is_directory(inside)) continue;
        // What may not be looked into is a container's.
        if (fs::exists(entry->path() / "config", inside) || inside) names.push_back(std::move(name));
    }
    if (error && error != std::errc::no_such_file_or_directory && error != std::errc::not_a_directory)
        throw ContainerFailure("/" + std::string(folder) + ": " + error.message());
    if (names.empty() && !search.hasTold) return nullptr;
    return std::unique_ptr<LxcEngine>(new LxcEngine(search.root, std::move(names)));
}

fs::path LxcEngine::folderOf(const std::string& name) const {
    return m_root / folder / name;
}

/// The control groups of what runs, which are made anew each time. One whose name is taken by what is left of another
/// run has a number behind its own.
void LxcEngine::readGroups() {
    constexpr std::string_view beginning = "lxc.payload.";
    for (const char* const place : {"", "unified", "freezer"}) {
        std::error_code error;
        for (fs::directory_iterator entry(m_root / "sys/fs/cgroup" / place, error), end; !error && entry != end;
             entry.increment(error)) {
            const std::string name = entry->path().filename().string();
            if (name.starts_with(beginning)) readGroup(entry->path(), name.substr(beginning.size()));
        }
    }
}

void LxcEngine::readGroup(const fs::path& group, std::string name) {
    const std::size_t hyphen = name.rfind('-');
    const bool isNumbered = hyphen != std::string::npos && parseInt32(name.substr(hyphen + 1)).value_or(0) > 0;
    if (isNumbered && std::find(m_names.begin(), m_names.end(), name) == m_names.end()) name.resize(hyphen);
    struct stat status {};
    if (::stat(group.c_str(), &status) != 0) return;
    const bool isFrozen = contentOf(group / "freezer.state").starts_with("FROZEN") ||
                          contentOf(group / "cgroup.events").find("frozen 1") != std::string::npos;
    const auto [known, isNew] = m_groups.try_emplace(std::move(name));
    Group& newest = known->second;
    if (isNew || status.st_mtime > newest.began) {
        newest = {std::to_string(status.st_ino), status.st_mtime, isFrozen};
    } else if (status.st_mtime == newest.began) {  // the same one, told by another hierarchy
        newest.isFrozen = newest.isFrozen || isFrozen;
    }
}

std::vector<ListedContainer> LxcEngine::containers(std::uint64_t&) {
    const auto listening = listeners(m_root);
    readGroups();
    std::vector<ListedContainer> containers;
    for (const std::string& name : m_names) {
        ListedContainer container;
        container.id = name;
        container.name = name;
        container.state = "stopped";
        const auto socket = listening.find(commandSocket(name));
        if (socket != listening.end()) {
            const auto group = m_groups.find(name);
            const bool isKnown = group != m_groups.end();
            container.state = isKnown && group->second.isFrozen ? "paused" : "running";
            container.run = socket->second + ":" + (isKnown ? group->second.id : std::string());
        }
        containers.push_back(std::move(container));
    }
    return containers;
}

std::optional<ContainerDetails> LxcEngine::details(const ListedContainer& container) {
    ContainerDetails details;
    readConfig(contentOf(folderOf(container.id) / "config"), details);
    const auto group = m_groups.find(container.id);
    if (container.state != "stopped" && group != m_groups.end()) details.started = group->second.began;
    return details;
}

}  // namespace QOR
