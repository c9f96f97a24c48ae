#include "ingest/collectors/LxdEngine.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORPercent.h"
#include "ingest/collectors/JsonMembers.h"

namespace QOR {
namespace {

/// Of Debian's package, and of the other one.
constexpr std::array<std::string_view, 2> sockets{"var/lib/lxd/unix.socket", "var/snap/lxd/common/lxd/unix.socket"};
constexpr std::string_view allProjects = "?recursion=1&all-projects=true";
constexpr std::string_view ownProject = "default";
constexpr std::size_t longestName = 255;

/// Its words for states as those of other engines.
struct KnownStatus {
    std::string_view status;
    std::string_view state;
};
constexpr std::array<KnownStatus, 9> knownStatuses{{
    {"Running", "running"},
    {"Thawed", "running"},
    {"Ready", "running"},
    {"Stopped", "stopped"},
    {"Starting", "initialized"},
    {"Stopping", "stopping"},
    {"Aborting", "stopping"},
    {"Freezing", "paused"},
    {"Frozen", "paused"},
}};

std::string stateOf(std::string_view status) {
    const auto* const known = std::find_if(knownStatuses.begin(), knownStatuses.end(),
                                           [status](const KnownStatus& one) { return one.status == status; });
    return std::string(known == knownStatuses.end() ? "unknown" : known->state);
}

bool isName(const std::string& text) {
    return !text.empty() && text.size() <= longestName && std::all_of(text.begin(), text.end(), [](char ch) {
        return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || ch == '-';
    });
}

/// An instance as it is asked for: "web?project=default".
struct InstanceName {
    std::string project;
    std::string name;
};
std::string idOf(const InstanceName& instance) {
    return instance.project == ownProject ? instance.name : instance.project + "/" + instance.name;
}
InstanceName nameOfId(const std::string& id) {
    const std::size_t slash = id.rfind('/');
    if (slash == std::string::npos) return {std::string(ownProject), id};
    return {id.substr(0, slash), id.substr(slash + 1)};
}

/// "512MiB", "1GB"; 0 for shares of what the machine has.
std::int64_t bytesOf(std::string_view text) {
    struct Unit {
        std::string_view name;
        std::int64_t bytes;
    };
    static constexpr std::array<Unit, 12> units{{{"KiB", std::int64_t{1} << 10},
                                                 {"MiB", std::int64_t{1} << 20},
                                                 {"GiB", std::int64_t{1} << 30},
                                                 {"TiB", std::int64_t{1} << 40},
                                                 {"PiB", std::int64_t{1} << 50},
                                                 {"kB", 1'000},
                                                 {"KB", 1'000},
                                                 {"MB", 1'000'000},
                                                 {"GB", 1'000'000'000},
                                                 {"TB", 1'000'000'000'000},
                                                 {"B", 1},
                                                 {"", 1}}};
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const std::optional<std::int64_t> count = parseInt64(text.substr(0, digits));
    const std::string_view unit = text.substr(std::min(text.find_first_not_of(' ', digits), text.size()));
    const auto* const known =
        std::find_if(units.begin(), units.end(), [unit](const Unit& one) { return one.name == unit; });
    if (!count || known == units.end() || *count > INT64_MAX / known->bytes) return 0;
    return *count * known->bytes;
}

/// Those that reach beyond the machine's own link.
std::vector<std::string> addressesOf(const JsonTree& json, const JsonValue* state) {
    std::vector<std::string> addresses;
    const JsonValue* const networks = jsonMember(json, state, "network");
    if (networks == nullptr) return addresses;
    for (const JsonValue* device = json.firstChild(*networks); device != nullptr; device = json.nextSibling(*device)) {
        const JsonValue* const all = jsonMember(json, device, "addresses");
        if (all == nullptr) continue;
        for (const JsonValue* one = json.firstChild(*all); one != nullptr; one = json.nextSibling(*one)) {
            std::string address = jsonText(json, one, "address");
            if (jsonText(json, one, "scope") == "global" && !address.empty() &&
                addresses.size() < mostContainerAddresses)
                addresses.push_back(std::move(address));
        }
    }
    return addresses;
}

std::string imageOf(const JsonTree& json, const JsonValue* config) {
    std::string image = jsonText(json, config, "image.description");
    if (!image.empty()) return image;
    image = jsonText(json, config, "image.os");
    const std::string release = jsonText(json, config, "image.release");
    return release.empty() ? image : image + " " + release;
}

}  // namespace

std::unique_ptr<LxdEngine> LxdEngine::open(const ContainerSearch& search) {
    for (const std::string_view socket : sockets) {
        auto link = EngineLink::open(search.root / socket, search.isStopping);
        if (link == nullptr) continue;
        std::unique_ptr<LxdEngine> engine(new LxdEngine(std::move(link)));
        engine->readServer();
        return engine;
    }
    return nullptr;
}

/// What an answer is about. \returns null when there is no such thing
const JsonValue* LxdEngine::find(const std::string& path) {
    const JsonValue* const answer = m_link->find(path);
    if (answer == nullptr) return nullptr;
    const JsonValue* const metadata = jsonMember(m_link->json(), answer, "metadata");
    if (metadata == nullptr) throw ContainerFailure(path + " is answered with nothing");
    return metadata;
}

const JsonValue& LxdEngine::list(const std::string& path) {
    const JsonValue* const all = find(path);
    if (all == nullptr) throw ContainerFailure(path + " is not there");
    if (all->type != JsonType::Array) throw ContainerFailure(path + " is answered with no list");
    return *all;
}

void LxdEngine::readServer() {
    const JsonValue* const server = find("/1.0");
    const JsonTree& json = m_link->json();
    if (jsonText(json, server, "auth") != "trusted") throw ContainerFailure("it does not trust who asks");
    const JsonValue* const environment = jsonMember(json, server, "environment");
    if (isJsonTrue(json, environment, "server_clustered")) m_place = jsonText(json, environment, "server_name");
}

std::vector<ListedContainer> LxdEngine::containers(std::uint64_t& passedOver) {
    const JsonValue& all = list("/1.0/instances" + std::string(allProjects));
    const JsonTree& json = m_link->json();
    std::vector<ListedContainer> containers;
    for (const JsonValue* one = json.firstChild(all); one != nullptr; one = json.nextSibling(*one)) {
        if (!m_place.empty() && jsonText(json, one, "location") != m_place) continue;
        InstanceName instance{jsonText(json, one, "project"), jsonText(json, one, "name")};
        if (instance.project.empty()) instance.project = ownProject;
        if (!isName(instance.name)) {
            ++passedOver;
            continue;
        }
        const JsonValue* const config = jsonMember(json, one, "expanded_config");
        ListedContainer container;
        container.id = idOf(instance);
        container.name = instance.name;
        container.state = stateOf(jsonText(json, one, "status"));
        container.image = imageOf(json, config);
        container.imageId = jsonText(json, config, "volatile.base_image");
        // When it was started last; never is the beginning of time.
        if (jsonTime(json, one, "last_used_at")) container.run = jsonText(json, one, "last_used_at");
        container.isVirtualMachine = jsonText(json, one, "type") == "virtual-machine";
        containers.push_back(std::move(container));
    }
    return containers;
}

std::optional<ContainerDetails> LxdEngine::details(const ListedContainer& container) {
    const InstanceName instance = nameOfId(container.id);
    const std::string query = "?project=" + percentEscaped(instance.project);
    ContainerDetails details;
    {
        const JsonValue* const one = find("/1.0/instances/" + instance.name + query);
        if (one == nullptr) return std::nullopt;
        const JsonTree& json = m_link->json();
        const JsonValue* const config = jsonMember(json, one, "expanded_config");
        details.hostname = instance.name;
        details.architecture = jsonText(json, one, "architecture");
        details.description = jsonText(json, one, "description");
        details.osName = jsonText(json, config, "image.os");
        details.osVersion = jsonText(json, config, "image.release");
        details.platform = container.isVirtualMachine ? std::string() : "linux";
        details.started = jsonTime(json, one, "last_used_at");
        details.memory = bytesOf(jsonText(json, config, "limits.memory"));
        constexpr std::int64_t billion = 1'000'000'000;
        const std::int64_t cpus = jsonNumber(json, config, "limits.cpu").value_or(0);
        if (cpus > 0 && cpus < INT64_MAX / billion) details.nanoCpus = cpus * billion;
        details.facts.emplace_back("project", instance.project);
    }
    const JsonValue* const state = find("/1.0/instances/" + instance.name + "/state" + query);
    if (state == nullptr) return std::nullopt;
    details.addresses = addressesOf(m_link->json(), state);
    return details;
}

std::vector<ContainerImage> LxdEngine::images(std::uint64_t& passedOver) {
    const JsonValue& all = list("/1.0/images" + std::string(allProjects));
    const JsonTree& json = m_link->json();
    std::vector<ContainerImage> images;
    for (const JsonValue* one = json.firstChild(all); one != nullptr; one = json.nextSibling(*one)) {
        ContainerImage image;
        image.id = jsonText(json, one, "fingerprint");
        if (!isName(image.id)) {
            ++passedOver;
            continue;
        }
        const JsonValue* const properties = jsonMember(json, one, "properties");
        const JsonValue* const aliases = jsonMember(json, one, "aliases");
        const JsonValue* const alias = aliases == nullptr ? nullptr : json.firstChild(*aliases);
        image.name = jsonText(json, alias, "name");
        if (image.name.empty()) image.name = jsonText(json, properties, "description");
        image.version = jsonText(json, properties, "release");
        image.time = jsonTime(json, one, "uploaded_at").value_or(INT64_MAX);
        const JsonValue* const source = jsonMember(json, one, "update_source");
        image.isPulled = isJsonTrue(json, one, "cached") || (source != nullptr && source->type == JsonType::Object);
        images.push_back(std::move(image));
    }
    return images;
}

}  // namespace QOR
