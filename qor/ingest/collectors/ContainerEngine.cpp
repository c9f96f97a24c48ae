#include "ingest/collectors/ContainerEngine.h"

#include <algorithm>
#include <array>
#include <system_error>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "httpclient/HttpLink.h"

namespace QOR {
namespace {

constexpr HttpLink::Bounds bounds{.connect = std::chrono::seconds(2),
                                  .send = std::chrono::seconds(2),
                                  .answer = std::chrono::seconds(10),
                                  .body = std::uint64_t{16} << 20};
/// What is asked in: the oldest in which everything is that is asked for. Engines that know later ones alone say so.
constexpr std::int32_t spokenMinor = 41;
constexpr std::size_t longestId = 128;
constexpr std::size_t mostAddresses = 256;
/// The project and service of a composition, the pod of a cluster: other labels may hold anything.
constexpr std::array<std::string_view, 4> toldLabels{"com.docker.compose.project", "com.docker.compose.service",
                                                     "io.kubernetes.pod.name", "io.kubernetes.pod.namespace"};

const JsonValue* member(const JsonTree& tree, const JsonValue* object, std::string_view name) {
    if (object == nullptr || object->type != JsonType::Object) return nullptr;
    for (const JsonValue* one = tree.firstChild(*object); one != nullptr; one = tree.nextSibling(*one)) {
        if (one->name == name) return one;
    }
    return nullptr;
}

std::string textOf(const JsonTree& tree, const JsonValue* object, std::string_view name) {
    const JsonValue* const value = member(tree, object, name);
    const bool isText = value != nullptr && (value->type == JsonType::String || value->type == JsonType::Number);
    return isText ? std::string(value->text) : std::string();
}

std::optional<std::int64_t> numberOf(const JsonTree& tree, const JsonValue* object, std::string_view name) {
    return parseInt64(textOf(tree, object, name));
}

/// Engines write the first year for never.
std::optional<std::int64_t> timeOf(const JsonTree& tree, const JsonValue* object, std::string_view name) {
    const std::optional<std::int64_t> time = parseTime(textOf(tree, object, name));
    return time && *time > 0 ? time : std::nullopt;
}

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
    const JsonValue* const networks = member(tree, member(tree, &container, "NetworkSettings"), "Networks");
    if (networks == nullptr) return addresses;
    for (const JsonValue* one = tree.firstChild(*networks); one != nullptr; one = tree.nextSibling(*one)) {
        for (const std::string_view kind : {"IPAddress", "GlobalIPv6Address"}) {
            std::string address = textOf(tree, one, kind);
            if (!address.empty() && addresses.size() < mostAddresses) addresses.push_back(std::move(address));
        }
    }
    return addresses;
}

std::optional<ListedContainer> listed(const JsonTree& tree, const JsonValue& value) {
    ListedContainer container;
    container.id = textOf(tree, &value, "Id");
    if (!isId(container.id)) return std::nullopt;
    const JsonValue* const names = member(tree, &value, "Names");
    const JsonValue* const name = names == nullptr ? nullptr : tree.firstChild(*names);
    if (name != nullptr) container.name = nameOf(name->text);
    if (container.name.empty()) container.name = container.id.substr(0, 12);
    container.state = textOf(tree, &value, "State");
    container.image = textOf(tree, &value, "Image");
    container.imageId = textOf(tree, &value, "ImageID");
    container.addresses = addressesOf(tree, value);
    return container;
}

std::optional<ContainerEvent> happened(const JsonTree& tree, const JsonValue& value) {
    ContainerEvent event;
    const std::optional<std::int64_t> time = numberOf(tree, &value, "timeNano");
    if (!time || *time <= 0) return std::nullopt;
    event.nanoseconds = *time;
    event.type = textOf(tree, &value, "Type");
    event.action = textOf(tree, &value, "Action");
    const JsonValue* const actor = member(tree, &value, "Actor");
    event.id = textOf(tree, actor, "ID");
    const JsonValue* const attributes = member(tree, actor, "Attributes");
    event.name = textOf(tree, attributes, "name");
    event.image = textOf(tree, attributes, "image");
    for (const std::string_view name : {"exitCode", "containerExitCode"}) {
        if (!event.exitCode) event.exitCode = numberOf(tree, attributes, name);
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

/// The connection, made again where the engine ends it.
class ContainerEngine::Link {
public:
    Link(const std::filesystem::path& socket, std::function<bool()> isStopping)
        : m_address(unixAddress(socket.string())), m_isStopping(std::move(isStopping)) {
        connect();
    }
    HttpAnswer get(const std::string& path) {
        if (!m_link || !m_link->isOpen()) connect();
        try {
            return m_link->ask({.method = "GET", .path = path}, m_isStopping);
        } catch (...) {
            m_link.reset();
            throw;
        }
    }

private:
    void connect() {
        m_link.reset();
        m_link = std::make_unique<HttpLink>(m_address, std::string(), bounds, m_isStopping);
    }

    const QORAgentAddress m_address;
    const std::function<bool()> m_isStopping;
    std::unique_ptr<HttpLink> m_link;
};

ContainerEngine::ContainerEngine(std::unique_ptr<Link> link) : m_link(std::move(link)) {}

ContainerEngine::~ContainerEngine() = default;

std::unique_ptr<ContainerEngine> ContainerEngine::open(const std::filesystem::path& socket,
                                                       std::function<bool()> isStopping) {
    std::unique_ptr<Link> link;
    try {
        link = std::make_unique<Link>(socket, std::move(isStopping));
    } catch (const HttpLost& lost) {
        const bool isNobodyThere = lost.code() == std::errc::no_such_file_or_directory ||
                                   lost.code() == std::errc::not_a_directory ||
                                   lost.code() == std::errc::connection_refused;
        if (!isNobodyThere) throw;
        return nullptr;
    }
    std::unique_ptr<ContainerEngine> engine(new ContainerEngine(std::move(link)));
    engine->readVersion();
    return engine;
}

void ContainerEngine::readVersion() {
    const JsonValue& answer = ask("/version");
    const std::optional<std::int32_t> newest = minorOf(textOf(m_json, &answer, "ApiVersion"));
    const std::optional<std::int32_t> oldest = minorOf(textOf(m_json, &answer, "MinAPIVersion"));
    if (!newest) throw ContainerFailure("it does not say which version it speaks");
    m_version =
        "/v1." + std::to_string(std::max(std::min(spokenMinor, *newest), std::min(oldest.value_or(0), *newest)));
    const JsonValue* const components = member(m_json, &answer, "Components");
    if (components == nullptr) return;
    for (const JsonValue* one = m_json.firstChild(*components); one != nullptr; one = m_json.nextSibling(*one))
        m_isPodman = m_isPodman || textOf(m_json, one, "Name") == "Podman Engine";
}

/// \returns null when there is no such thing
const JsonValue* ContainerEngine::find(const std::string& path) {
    HttpAnswer answer = m_link->get(m_version + path);
    if (answer.status == 404) return nullptr;
    if (answer.status != 200) throw ContainerFailure(path + " is answered with " + std::to_string(answer.status));
    m_body = std::move(answer.body);
    try {
        return &m_json.parse(m_body);
    } catch (const QORException& failure) {
        throw ContainerFailure(path + ": " + failure.message());
    }
}

const JsonValue& ContainerEngine::ask(const std::string& path) {
    const JsonValue* const answer = find(path);
    if (answer == nullptr) throw ContainerFailure(path + " is not there");
    return *answer;
}

std::vector<ListedContainer> ContainerEngine::containers(std::uint64_t& passedOver) {
    const JsonValue& answer = ask("/containers/json?all=true");
    if (answer.type != JsonType::Array) throw ContainerFailure("its list of containers is none");
    std::vector<ListedContainer> containers;
    for (const JsonValue* one = m_json.firstChild(answer); one != nullptr; one = m_json.nextSibling(*one)) {
        if (auto container = listed(m_json, *one)) {
            containers.push_back(std::move(*container));
        } else {
            ++passedOver;
        }
    }
    return containers;
}

std::optional<ContainerDetails> ContainerEngine::details(const std::string& id) {
    const JsonValue* const container = find("/containers/" + id + "/json");
    if (container == nullptr) return std::nullopt;
    const JsonValue* const config = member(m_json, container, "Config");
    const JsonValue* const host = member(m_json, container, "HostConfig");
    const JsonValue* const state = member(m_json, container, "State");
    ContainerDetails details;
    details.hostname = textOf(m_json, config, "Hostname");
    details.platform = textOf(m_json, container, "Platform");
    details.restartPolicy = textOf(m_json, member(m_json, host, "RestartPolicy"), "Name");
    details.started = timeOf(m_json, state, "StartedAt");
    details.finished = timeOf(m_json, state, "FinishedAt");
    details.restarts = numberOf(m_json, container, "RestartCount").value_or(0);
    details.memory = numberOf(m_json, host, "Memory").value_or(0);
    details.nanoCpus = numberOf(m_json, host, "NanoCpus").value_or(0);
    details.exitCode = numberOf(m_json, state, "ExitCode").value_or(0);
    const JsonValue* const outOfMemory = member(m_json, state, "OOMKilled");
    details.isOutOfMemory = outOfMemory != nullptr && outOfMemory->type == JsonType::True;
    const JsonValue* const labels = member(m_json, config, "Labels");
    for (const std::string_view name : toldLabels) {
        std::string value = textOf(m_json, labels, name);
        if (!value.empty()) details.labels.emplace_back(name, std::move(value));
    }
    return details;
}

std::vector<ContainerEvent> ContainerEngine::events(std::int64_t since, std::int64_t until, std::uint64_t& passedOver) {
    // Podman tells nothing of what is over already when it is given an end, Docker goes on for ever without one.
    HttpAnswer answer = m_link->get(m_version + "/events?since=" + std::to_string(since) +
                                    (m_isPodman ? "&stream=false" : "&until=" + std::to_string(until)));
    if (answer.status != 200) throw ContainerFailure("/events is answered with " + std::to_string(answer.status));
    std::vector<ContainerEvent> events;
    for (std::string_view rest = answer.body; !rest.empty();) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (line.find_first_not_of(" \r\t") == std::string_view::npos) continue;
        std::optional<ContainerEvent> event;
        try {
            event = happened(m_json, m_json.parse(line));
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
