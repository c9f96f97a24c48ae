#include "ingest/collectors/DockerEngine.h"

#include <algorithm>
#include <array>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "ingest/collectors/JsonMembers.h"

namespace QOR {
namespace {

/// What is asked in: the oldest in which everything is that is asked for. Engines that know later ones alone say so.
constexpr std::int32_t spokenMinor = 41;
constexpr std::size_t longestId = 128;
/// The project and service of a composition, the pod of a cluster: other labels may hold anything.
constexpr std::array<std::string_view, 4> toldLabels{"com.docker.compose.project", "com.docker.compose.service",
                                                     "io.kubernetes.pod.name", "io.kubernetes.pod.namespace"};

bool isId(const std::string& text) {
    return !text.empty() && text.size() <= longestId && std::all_of(text.begin(), text.end(), [](char ch) {
        return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z');
    });
}

/// Names stand with a slash before them.
std::string nameOf(std::string_view text) {
    return std::string(text.substr(text.starts_with('/') ? 1 : 0));
}

std::vector<std::string> addressesOf(const JsonTree& tree, const JsonValue& container) {
    std::vector<std::string> addresses;
    const JsonValue* const networks = jsonMember(tree, jsonMember(tree, &container, "NetworkSettings"), "Networks");
    if (networks == nullptr) return addresses;
    for (const JsonValue* one = tree.firstChild(*networks); one != nullptr; one = tree.nextSibling(*one)) {
        for (const std::string_view kind : {"IPAddress", "GlobalIPv6Address"}) {
            std::string address = jsonText(tree, one, kind);
            if (!address.empty() && addresses.size() < mostContainerAddresses) addresses.push_back(std::move(address));
        }
    }
    return addresses;
}

std::optional<ListedContainer> listed(const JsonTree& tree, const JsonValue& value) {
    ListedContainer container;
    container.id = jsonText(tree, &value, "Id");
    if (!isId(container.id)) return std::nullopt;
    const JsonValue* const names = jsonMember(tree, &value, "Names");
    const JsonValue* const name = names == nullptr ? nullptr : tree.firstChild(*names);
    if (name != nullptr) container.name = nameOf(name->text);
    if (container.name.empty()) container.name = container.id.substr(0, 12);
    container.state = jsonText(tree, &value, "State");
    container.image = jsonText(tree, &value, "Image");
    container.imageId = jsonText(tree, &value, "ImageID");
    container.addresses = addressesOf(tree, value);
    return container;
}

std::optional<ContainerEvent> happened(const JsonTree& tree, const JsonValue& value) {
    ContainerEvent event;
    const std::optional<std::int64_t> time = jsonNumber(tree, &value, "timeNano");
    if (!time || *time <= 0) return std::nullopt;
    event.nanoseconds = *time;
    event.type = jsonText(tree, &value, "Type");
    event.action = jsonText(tree, &value, "Action");
    const JsonValue* const actor = jsonMember(tree, &value, "Actor");
    event.id = jsonText(tree, actor, "ID");
    const JsonValue* const attributes = jsonMember(tree, actor, "Attributes");
    event.name = jsonText(tree, attributes, "name");
    event.image = jsonText(tree, attributes, "image");
    for (const std::string_view name : {"exitCode", "containerExitCode"}) {
        if (!event.exitCode) event.exitCode = jsonNumber(tree, attributes, name);
    }
    if (event.type == "container" && !isId(event.id)) return std::nullopt;
    return event;
}

/// "1.41" to 41: what is before the point has never been another.
std::optional<std::int32_t> minorOf(std::string_view version) {
    if (!version.starts_with("1.")) return std::nullopt;
    return parseInt32(version.substr(2));
}

}  // namespace

DockerEngine::DockerEngine(std::unique_ptr<EngineLink> link) : m_link(std::move(link)) {}

std::unique_ptr<DockerEngine> DockerEngine::open(const std::filesystem::path& socket,
                                                 std::function<bool()> isStopping) {
    auto link = EngineLink::open(socket, std::move(isStopping));
    if (link == nullptr) return nullptr;
    std::unique_ptr<DockerEngine> engine(new DockerEngine(std::move(link)));
    engine->readVersion();
    return engine;
}

void DockerEngine::readVersion() {
    const JsonValue& answer = m_link->ask("/version");
    const JsonTree& json = m_link->json();
    const std::optional<std::int32_t> newest = minorOf(jsonText(json, &answer, "ApiVersion"));
    const std::optional<std::int32_t> oldest = minorOf(jsonText(json, &answer, "MinAPIVersion"));
    if (!newest) throw ContainerFailure("it does not say which version it speaks");
    m_version =
        "/v1." + std::to_string(std::max(std::min(spokenMinor, *newest), std::min(oldest.value_or(0), *newest)));
    const JsonValue* const components = jsonMember(json, &answer, "Components");
    if (components == nullptr) return;
    for (const JsonValue* one = json.firstChild(*components); one != nullptr; one = json.nextSibling(*one))
        m_isPodman = m_isPodman || jsonText(json, one, "Name") == "Podman Engine";
}

std::vector<ListedContainer> DockerEngine::containers(std::uint64_t& passedOver) {
    const JsonValue& answer = m_link->ask(m_version + "/containers/json?all=true");
    const JsonTree& json = m_link->json();
    if (answer.type != JsonType::Array) throw ContainerFailure("its list of containers is none");
    std::vector<ListedContainer> containers;
    for (const JsonValue* one = json.firstChild(answer); one != nullptr; one = json.nextSibling(*one)) {
        if (auto container = listed(json, *one)) {
            containers.push_back(std::move(*container));
        } else {
            ++passedOver;
        }
    }
    return containers;
}

std::optional<ContainerDetails> DockerEngine::details(const ListedContainer& listed) {
    const JsonValue* const container = m_link->find(m_version + "/containers/" + listed.id + "/json");
    if (container == nullptr) return std::nullopt;
    const JsonTree& json = m_link->json();
    const JsonValue* const config = jsonMember(json, container, "Config");
    const JsonValue* const host = jsonMember(json, container, "HostConfig");
    const JsonValue* const state = jsonMember(json, container, "State");
    ContainerDetails details;
    details.hostname = jsonText(json, config, "Hostname");
    details.platform = jsonText(json, container, "Platform");
    details.restartPolicy = jsonText(json, jsonMember(json, host, "RestartPolicy"), "Name");
    details.started = jsonTime(json, state, "StartedAt");
    details.finished = jsonTime(json, state, "FinishedAt");
    details.restarts = jsonNumber(json, container, "RestartCount").value_or(0);
    details.memory = jsonNumber(json, host, "Memory").value_or(0);
    details.nanoCpus = jsonNumber(json, host, "NanoCpus").value_or(0);
    details.exitCode = jsonNumber(json, state, "ExitCode");
    details.addresses = listed.addresses;
    const JsonValue* const labels = jsonMember(json, config, "Labels");
    for (const std::string_view name : toldLabels) {
        std::string value = jsonText(json, labels, name);
        if (!value.empty()) details.labels.emplace_back(name, std::move(value));
    }
    return details;
}

std::vector<ContainerEvent> DockerEngine::events(std::int64_t since, std::int64_t until, std::uint64_t& passedOver) {
    // Podman tells nothing of what is over already when it is given an end, Docker goes on for ever without one.
    HttpAnswer answer = m_link->get(m_version + "/events?since=" + std::to_string(since) +
                                    (m_isPodman ? "&stream=false" : "&until=" + std::to_string(until)));
    if (answer.status != 200) throw ContainerFailure("/events is answered with " + std::to_string(answer.status));
    std::vector<ContainerEvent> events;
    JsonTree& json = m_link->json();
    for (std::string_view rest = answer.body; !rest.empty();) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (line.find_first_not_of(" \r\t") == std::string_view::npos) continue;
        std::optional<ContainerEvent> event;
        try {
            event = happened(json, json.parse(line));
        } catch (const QORException&) {
            event.reset();
        }
        if (event) {
            events.push_back(std::move(*event));
        } else {
            ++passedOver;
        }
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const ContainerEvent& a, const ContainerEvent& b) { return a.nanoseconds < b.nanoseconds; });
    return events;
}

}  // namespace QOR
