#include "ingest/collectors/ContainerTelling.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORNumbers.h"
#include "ingest/QORMachine.h"
#include "ingest/RecordLines.h"
#include "ingest/collectors/CollectedOperation.h"
#include "ingest/collectors/GoneEnvironment.h"

namespace QOR {
namespace {

constexpr std::size_t digestLength = 16;
constexpr std::int64_t nanosecondsOfSecond = 1'000'000'000;
constexpr std::string_view digestMark = "sha256:";

struct KnownState {
    std::string_view name;
    ContainerLife life;
};
constexpr std::array<KnownState, 11> knownStates{{
    {"created", {EnvironmentLife::Off, EnvironmentLife::Unknown}},
    {"configured", {EnvironmentLife::Off, EnvironmentLife::Unknown}},
    {"initialized", {EnvironmentLife::Off, EnvironmentLife::Running}},
    {"restarting", {EnvironmentLife::Off, EnvironmentLife::Running}},
    {"running", {EnvironmentLife::Running, EnvironmentLife::Unknown}},
    {"stopping", {EnvironmentLife::Running, EnvironmentLife::Off}},
    {"paused", {EnvironmentLife::Paused, EnvironmentLife::Unknown}},
    {"exited", {EnvironmentLife::Off, EnvironmentLife::Unknown}},
    {"stopped", {EnvironmentLife::Off, EnvironmentLife::Unknown}},
    {"removing", {EnvironmentLife::Off, EnvironmentLife::Gone}},
    {"dead", {EnvironmentLife::Off, EnvironmentLife::Gone}},
}};

/// What engines tell of a container that is news; the rest is how they go about it.
struct KnownAction {
    std::string_view action;
    std::string_view op;     ///< empty: it is nobody's doing
    std::string_view event;  ///< as other environments' have it
    std::optional<EnvironmentLife> life{};
};
constexpr std::array<KnownAction, 12> knownActions{{
    {"create", "create", "created", EnvironmentLife::Off},
    {"start", "start", "started", EnvironmentLife::Running},
    {"die", "stop", "stopped", EnvironmentLife::Off},
    {"died", "stop", "stopped", EnvironmentLife::Off},
    {"restart", "restart", "restarted"},
    {"pause", "suspend", "suspended", EnvironmentLife::Paused},
    {"unpause", "resume", "resumed", EnvironmentLife::Running},
    {"oom", "", "out of memory"},
    {"rename", "rename", "renamed"},
    {"update", "update", "updated"},
    {"destroy", "remove", "removed", EnvironmentLife::Gone},
    {"remove", "remove", "removed", EnvironmentLife::Gone},
}};
constexpr std::array<std::string_view, 10> imageActions{"pull", "push",   "tag",    "untag", "delete",
                                                        "load", "import", "remove", "prune", "build"};

std::string shortDigest(const std::string& text) {
    return QORDigest().add(text).hex().substr(0, digestLength);
}

/// An image's identifier, which is no name; engines tell either, or nothing.
bool isDigest(std::string_view id) {
    if (id.starts_with(digestMark)) return true;
    constexpr std::size_t digits = 64;
    return id.empty() || (id.size() == digits && id.find_first_not_of("0123456789abcdef") == std::string_view::npos);
}

QORInfo containerInfo(const std::string& name, const std::string& image) {
    QORInfo info("container");
    addText(info, "name", collectedText(name));
    addText(info, "image", collectedText(image));
    return info;
}

/// "library/nginx:1.25" is the version 1.25 of library/nginx; a port of its registry stands before a slash. One without
/// a name is known by its digest.
QORInfo imageInfo(const std::string& image) {
    const std::size_t digest = std::min(image.find('@'), image.size());
    const std::size_t slash = image.substr(0, digest).rfind('/');
    const std::size_t colon = image.find(':', slash == std::string::npos ? 0 : slash);
    const std::size_t end = image.starts_with(digestMark) ? image.size() : std::min(digest, colon);
    QORInfo info("package");
    addText(info, "name", collectedText(image.substr(0, end)));
    if (end < image.size()) addText(info, "version", collectedText(image.substr(end + 1)));
    info.add("type", "image");
    return info;
}

QORConfigRecord configOf(const std::string& engine, const ListedContainer& container, const ContainerDetails& details,
                         bool isRunning) {
    constexpr std::int64_t mebibyte = 1024 * 1024;
    QORInfo document;
    const auto add = [&document](std::string_view name, const std::string& text) {
        addText(document, name, collectedText(text));
    };
    add("name", container.name);
    add("hostname", details.hostname);
    add("description", details.description);
    add("architecture", details.architecture);
    document.add("type", container.isVirtualMachine ? "virtual machine" : "container");
    QORInfo system("os");
    addText(system, "name", collectedText(details.osName));
    addText(system, "platform", collectedText(details.platform));
    addText(system, "version", collectedText(details.osVersion));
    if (!system.empty()) document.add(std::move(system));
    for (const std::string& address : details.addresses)
        add("ip", address);
    QORConfigRecord config;
    if (details.memory > 0) config.memory = details.memory / mebibyte;
    if (config.memory) document.add("memory", std::to_string(*config.memory));
    if (isRunning) config.bootTime = details.started;
    if (config.bootTime) document.add("boot_time", std::to_string(*config.bootTime));
    document.add("engine", engine);
    add("image", container.image);
    add("image_id", container.imageId);
    if (details.nanoCpus > 0) {
        constexpr double billionths = 1e9;
        document.add("cpus", doubleToStr(static_cast<double>(details.nanoCpus) / billionths));
    }
    add("restart_policy", details.restartPolicy);
    if (details.restarts) document.add("restarts", std::to_string(*details.restarts));
    for (const auto& [name, value] : details.facts)
        add(name, value);
    for (const auto& [name, value] : details.labels) {
        QORInfo label("label");
        label.add("name", name);
        addText(label, "value", collectedText(value));
        document.add(std::move(label));
    }
    QORConfigRecord whole(std::move(document));
    whole.addresses = details.addresses;
    whole.memory = config.memory;
    whole.bootTime = config.bootTime;
    return whole;
}

}  // namespace

ContainerLife containerLife(std::string_view state) noexcept {
    const auto* const found = std::find_if(knownStates.begin(), knownStates.end(),
                                           [state](const KnownState& one) { return one.name == state; });
    return found == knownStates.end() ? ContainerLife() : found->life;
}

struct ContainerTelling::News {
    std::string name{};  ///< what tells it from all others of the engine
    std::string of{};    ///< whom it is about, for people
    std::int64_t time = 0;
    QOREID eid{};
    std::string_view op{};
    std::string category = "env_status";
    std::int32_t status = 0;
    bool isEvent = true;
    QORInfo message{};
};

ContainerTelling::ContainerTelling(QORCollection& collection, std::string engine, bool hasOwnIds,
                                   const ContainerCollector::Bounds& most)
    : m_collection(collection),
      m_engine(std::move(engine)),
      m_scope(hasOwnIds ? std::string() : m_engine + " "),
      m_most(most),
      m_machine(describeMachine(collection.root())) {}

QOREID ContainerTelling::eidOf(const std::string& id) const {
    return QOREID(QORGUIDBase::fromName(m_machine.eid, m_scope + "container " + id));
}

void ContainerTelling::tell(const ListedContainer& container, const ContainerDetails& details, ToldContainer& told) {
    const ContainerLife life = containerLife(container.state);
    QOREnvironmentRecord record;
    record.eid = eidOf(container.id);
    record.parentEid = m_collection.machine();
    record.title = collectedText(container.name);
    record.state = numberOf(life.now);
    record.transition = numberOf(life.next);
    const bool isRunning = life.now == EnvironmentLife::Running || life.now == EnvironmentLife::Paused;
    record.config = configOf(m_engine, container, details, isRunning);
    const std::string line = lineOf(record);
    std::string digest = shortDigest(line);
    if (digest == told.digest) return;
    m_collection.add(line);
    told.digest = std::move(digest);
}

void ContainerTelling::tellGone(const std::string& id, const ToldContainer& told) {
    if (told.digest.empty()) return;
    if (const auto record = goneEnvironment(eidOf(id), m_collection.machine())) m_collection.add(lineOf(*record));
}

void ContainerTelling::tell(const ContainerEvent& event, ToldContainer* told) {
    News news;
    news.name = std::to_string(event.nanoseconds) + " " + event.action + " " + event.id;
    news.time = event.nanoseconds / nanosecondsOfSecond;
    if (told == nullptr) {
        const auto* const known = std::find(imageActions.begin(), imageActions.end(), event.action);
        if (known == imageActions.end()) return;
        const std::string& image = !event.name.empty() && isDigest(event.id) ? event.name : event.id;
        news.of = image;
        news.eid = m_machine.eid;
        news.op = *known;
        news.isEvent = false;
        news.message.add(imageInfo(image));
        if (isDigest(event.id)) addText(news.message, "image_id", collectedText(event.id));
        addSource(news.message, m_machine);
        return tell(news);
    }
    const auto* const known = std::find_if(knownActions.begin(), knownActions.end(),
                                           [&](const KnownAction& one) { return one.action == event.action; });
    if (known == knownActions.end()) return;
    const EnvironmentLife before = told->life;
    told->life = known->life.value_or(told->life);
    if (!event.name.empty()) told->name = event.name;
    news.of = told->name;
    news.eid = eidOf(event.id);
    news.op = known->op;
    const bool tellsCode = known->event == "stopped" && event.exitCode.has_value();
    const std::int64_t exitCode = tellsCode ? event.exitCode.value_or(0) : 0;
    news.status = static_cast<std::int32_t>(std::clamp<std::int64_t>(exitCode, 0, 255));
    news.message.add(containerInfo(told->name, event.image));
    news.message.add("event", std::string(known->event));
    if (known->op.empty()) {
        news.category = "resource_alert";
        news.message.add("resource", "memory");
    } else {
        news.message.add("old_state", std::to_string(numberOf(before)));
        news.message.add("new_state", std::to_string(numberOf(told->life)));
    }
    if (tellsCode) news.message.add("exit_code", std::to_string(exitCode));
    tell(news);
}

void ContainerTelling::tellChange(ContainerEvent event, ToldContainer& told, EnvironmentLife now) {
    const bool wasPaused = told.life == EnvironmentLife::Paused;
    if (now == EnvironmentLife::Gone) {
        event.action = "destroy";
    } else if (now == EnvironmentLife::Paused) {
        event.action = "pause";
    } else if (now == EnvironmentLife::Running) {
        event.action = wasPaused ? "unpause" : "start";
    } else if (now == EnvironmentLife::Off) {
        event.action = "die";
    }
    tell(event, &told);
    told.life = now;
}

void ContainerTelling::tell(const ContainerImage& image, std::string_view action, std::int64_t time) {
    News news;
    news.name = std::to_string(time) + " " + std::string(action) + " " + image.id;
    news.of = image.name.empty() ? image.id : image.name;
    news.time = time;
    news.eid = m_machine.eid;
    news.op = action;
    news.isEvent = false;
    QORInfo package("package");
    addText(package, "name", collectedText(news.of));
    addText(package, "version", collectedText(image.version));
    package.add("type", "image");
    news.message.add(std::move(package));
    addText(news.message, "image_id", collectedText(image.id));
    addSource(news.message, m_machine);
    tell(news);
}

bool ContainerTelling::isLeftOut(const News& news) {
    std::size_t& ofOne = m_ofOne[news.of];
    if (m_told >= m_most.changes || ofOne >= m_most.ofOne) {
        m_leftOut.add(collectedText(news.of), news.name, news.time);
        return true;
    }
    ++m_told;
    ++ofOne;
    return false;
}

void ContainerTelling::tell(const News& news) {
    if (isLeftOut(news)) return;
    QORInfo message = news.message;
    if (news.eid != m_machine.eid) {
        QORInfo env("env");
        env.add("eid", news.eid.toString());
        message.add(std::move(env));
    }
    if (news.isEvent) {
        QOREventRecord event;
        event.id = QORGUIDBase::fromName(m_machine.eid, "event of " + m_engine + " " + news.name);
        event.time = news.time;
        event.eid = news.eid;
        event.source = m_engine;
        event.category = news.category;
        event.info = message;
        m_collection.add(lineOf(event));
    }
    if (news.op.empty()) return;
    QOROperationRecord operation = collectedOperation(m_machine, m_engine + " " + news.name);
    operation.op = std::string(news.op);
    operation.status = news.status;
    operation.time = news.time;
    operation.eid = news.eid;
    operation.eids = {news.eid};
    if (news.eid != m_machine.eid) operation.eids.push_back(m_machine.eid);
    operation.message = std::move(message);
    m_collection.add(lineOf(operation));
}

void ContainerTelling::end() {
    m_leftOut.tell(m_collection, m_engine);
}

}  // namespace QOR
