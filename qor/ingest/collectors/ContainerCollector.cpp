#include "ingest/collectors/ContainerCollector.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORTime.h"
#include "QORCommon/QORUtf8.h"
#include "httpclient/HttpLink.h"
#include "ingest/collectors/ContainerEngine.h"
#include "ingest/collectors/ContainerPlace.h"
#include "ingest/collectors/ContainerTelling.h"
#include "ingest/collectors/DockerEngine.h"
#include "ingest/collectors/LxcEngine.h"
#include "ingest/collectors/LxdEngine.h"
#include "ingest/collectors/MachinedEngine.h"

namespace QOR {
namespace {

constexpr std::int64_t nanoseconds = 1'000'000'000;

QORCollector::Traits traitsOf(ContainerCollector::Engine engine) {
    using Engine = ContainerCollector::Engine;
    switch (engine) {
        case Engine::Docker:
            return {.name = "docker", .source = "/run/docker.sock", .every = std::chrono::minutes(1)};
        case Engine::Podman:  // whoever asks starts it: it does not run while nobody does
            return {.name = "podman", .source = "/run/podman/podman.sock", .every = std::chrono::minutes(5)};
        case Engine::Machined:
            return {.name = "machined",
                    .source = "org.freedesktop.machine1 on the system's bus",
                    .every = std::chrono::minutes(1)};
        case Engine::Lxc:
            return {.name = "lxc", .source = "container in /var/lib/lxc", .every = std::chrono::minutes(1)};
        case Engine::Lxd:
            break;
    }
    return {.name = "lxd", .source = "/var/lib/lxd/unix.socket", .every = std::chrono::minutes(1)};
}

/// \returns null when it is not there
std::unique_ptr<ContainerEngine> openEngine(ContainerCollector::Engine wanted, const ContainerSearch& search) {
    using Engine = ContainerCollector::Engine;
    if (wanted == Engine::Machined) return MachinedEngine::open(search);
    if (wanted == Engine::Lxc) return LxcEngine::open(search);
    if (wanted == Engine::Lxd) return LxdEngine::open(search);
    const std::string socket = traitsOf(wanted).source.substr(1);
    auto engine = DockerEngine::open(search.root / socket, search.isStopping);
    // A name for the other one's socket: that one tells of its containers.
    if (engine != nullptr && engine->isPodman() != (wanted == Engine::Podman)) return nullptr;
    return engine;
}

bool isUp(EnvironmentLife life) {
    return life == EnvironmentLife::Running || life == EnvironmentLife::Paused;
}

/// What of a container a list tells; when it was up last is not among it.
std::string seenOf(const ListedContainer& container) {
    constexpr std::size_t length = 16;
    QORDigest digest;
    for (const std::string* const text :
         {&container.name, &container.state, &container.image, &container.imageId, &container.run})
        digest.add(*text).add(std::string_view("\0", 1));
    for (const std::string& address : container.addresses)
        digest.add(address).add(std::string_view("\0", 1));
    return digest.hex().substr(0, length);
}

/// One run.
class ContainerReading {
public:
    ContainerReading(QORCollection& collection, ContainerEngine& engine, const std::string& name, ContainerPlace place,
                     const ContainerCollector::Bounds& most)
        : m_collection(collection),
          m_engine(engine),
          m_most(most),
          m_place(std::move(place)),
          m_isFirst(m_place.reached == 0),
          m_telling(collection, name, engine.hasOwnIds(), most) {}

    void read() {
        if (m_engine.tellsEvents()) {
            readEvents();
        } else {
            m_place.reached = currentTime() * nanoseconds;
        }
        std::vector<ListedContainer> containers = list();
        const std::set<std::string> turn = whoseTurn(containers);
        for (const ListedContainer& container : containers) {
            if (m_collection.isStopping()) return;
            look(container, turn.contains(container.id));
        }
        if (!m_engine.tellsEvents()) readImages();
        m_telling.end();
        m_collection.passOver(m_passedOver);
        m_collection.setPosition(m_place.text());
    }

private:
    /// The last second may not be over.
    void readEvents() {
        const std::int64_t until = currentTime() - 1;
        const std::int64_t end = until * nanoseconds;
        if (m_isFirst) {  // what was before is no news
            m_place.reached = end;
            return;
        }
        // Where the clock was put back there is nothing yet.
        while (m_place.reached < end && !m_collection.isStopping())
            readEventsUntil(until);
    }

    /// Or until earlier, where those are too many for one answer.
    void readEventsUntil(std::int64_t until) {
        const std::int64_t since = m_place.reached / nanoseconds;
        for (;; until = since + (until - since) / 2) {
            try {
                readEvents(since, until);
                return;
            } catch (const HttpTooLarge&) {
                if (until - since <= 1 || !m_engine.takesEnds()) break;
            }
        }
        m_collection.cannotRead("the events of " + time2str(until) + ", which are too many");
        m_place.reached = until * nanoseconds;
    }

    void readEvents(std::int64_t since, std::int64_t until) {
        const std::int64_t end = until * nanoseconds;
        for (const ContainerEvent& event : m_engine.events(since, until, m_passedOver)) {
            if (event.nanoseconds <= m_place.reached || event.nanoseconds > end) continue;
            if (event.type == "image") m_telling.tell(event, nullptr);
            if (event.type != "container") continue;
            m_changed.insert(event.id);
            m_telling.tell(event, &m_place.containers[event.id]);
        }
        m_place.reached = end;
    }

    /// Those that there are; the others are told of for the last time.
    std::vector<ListedContainer> list() {
        std::vector<ListedContainer> containers = m_engine.containers(m_passedOver);
        std::sort(containers.begin(), containers.end(),
                  [](const ListedContainer& a, const ListedContainer& b) { return a.id < b.id; });
        std::set<std::string_view> there;
        for (const ListedContainer& container : containers)
            there.insert(container.id);
        for (auto told = m_place.containers.begin(); told != m_place.containers.end();) {
            if (there.contains(told->first)) {
                ++told;
                continue;
            }
            told = isOver(told->first, told->second) ? m_place.containers.erase(told) : std::next(told);
        }
        if (containers.size() > m_most.containers) {
            m_collection.cannotRead("more than " + std::to_string(m_most.containers) +
                                    " containers; the rest is left out");
            containers.resize(m_most.containers);
        }
        return containers;
    }

    /// \returns whether nothing more will be told of it: the event may come with the next run
    bool isOver(const std::string& id, ToldContainer& told) {
        m_telling.tellGone(id, told);
        if (told.life == EnvironmentLife::Gone || told.digest.empty()) return true;
        const EnvironmentLife before = std::exchange(told.listed, EnvironmentLife::Gone);
        if (m_engine.tellsEvents() && before != EnvironmentLife::Gone) return false;
        ContainerEvent event = eventOf(id, std::nullopt);
        if (!m_engine.tellsEvents() && isUp(told.life)) m_telling.tellChange(event, told, EnvironmentLife::Off);
        m_telling.tellChange(std::move(event), told, EnvironmentLife::Gone);
        return true;
    }

    /// \param time in seconds since the epoch; nothing: now, and never twice the same
    static ContainerEvent eventOf(const std::string& id, std::optional<std::int64_t> time) {
        const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
        ContainerEvent event;
        event.nanoseconds = time && *time < now.count() / nanoseconds ? *time * nanoseconds : now.count();
        event.type = "container";
        event.id = id;
        return event;
    }

    /// Of those that are as they were, since a list does not tell everything.
    std::set<std::string> whoseTurn(const std::vector<ListedContainer>& containers) {
        std::set<std::string> turn;
        if (containers.empty()) return turn;
        auto next = std::upper_bound(containers.begin(), containers.end(), m_place.lookedAt,
                                     [](const std::string& id, const ListedContainer& one) { return id < one.id; });
        for (std::size_t count = std::min(m_most.looks, containers.size()); count > 0; --count, ++next) {
            if (next == containers.end()) next = containers.begin();
            turn.insert(next->id);
            m_place.lookedAt = next->id;
        }
        return turn;
    }

    void look(const ListedContainer& container, bool isItsTurn) {
        const auto [place, isNew] = m_place.containers.try_emplace(container.id);
        ToldContainer& told = place->second;
        const EnvironmentLife now = containerLife(container.state).now;
        const EnvironmentLife before = std::exchange(told.listed, now);
        told.name = container.name;
        std::string seen = seenOf(container);
        bool isUntold = false;
        if (m_engine.tellsEvents()) {
            if (isNew) told.life = now;
            // Events of the last moment come with the next run: no event has told what was so then already.
            isUntold = !isNew && told.life != now && before == now;
        } else if (m_isFirst) {
            told.life = now;
        } else {
            isUntold = isNew || told.life != now || (!container.run.empty() && container.run != told.run);
        }
        if (seen == told.seen && !isUntold && !isItsTurn && !m_changed.contains(container.id)) return;
        try {
            const std::optional<ContainerDetails> details = m_engine.details(container);
            if (!details) {  // it went meanwhile, which the next run tells
                if (isNew) m_place.containers.erase(place);
                return;
            }
            if (isUntold) tellCourse(container, *details, now, told, isNew);
            m_telling.tell(container, *details, told);
            told.seen = std::move(seen);
            if (!container.run.empty()) told.run = container.run;
        } catch (const ContainerFailure& failure) {
            m_collection.cannotRead("the container " + toUtf8(container.name) + ": " + failure.what());
            if (isNew) m_place.containers.erase(place);
        }
    }

    /// How it came to be as it is, as far as that shows.
    void tellCourse(const ListedContainer& container, const ContainerDetails& details, EnvironmentLife now,
                    ToldContainer& told, bool isNew) {
        const auto at = [&](const std::optional<std::int64_t>& time) {
            ContainerEvent event = eventOf(container.id, time);
            event.image = container.image;
            event.exitCode = details.exitCode;
            return event;
        };
        const auto change = [&](EnvironmentLife life) {
            std::optional<std::int64_t> time;
            if (life == EnvironmentLife::Off) time = details.finished;
            if (life == EnvironmentLife::Running && !isUp(told.life)) time = details.started;
            m_telling.tellChange(at(time), told, life);
        };
        const bool isAnotherRun = !m_engine.tellsEvents() && !container.run.empty() && container.run != told.run;
        if (isNew) {
            ContainerEvent created = at(std::nullopt);
            created.action = "create";
            m_telling.tell(created, &told);
        } else if (isAnotherRun && told.life == EnvironmentLife::Running && now == EnvironmentLife::Running) {
            ContainerEvent restarted = at(details.started);
            restarted.action = "restart";
            m_telling.tell(restarted, &told);
        } else if (isAnotherRun && isUp(told.life) && isUp(now)) {
            change(EnvironmentLife::Off);
        } else if (isAnotherRun && told.life == EnvironmentLife::Off && now == EnvironmentLife::Off) {
            change(EnvironmentLife::Running);
        }
        if (!m_engine.tellsEvents() && !isUp(told.life) && now == EnvironmentLife::Paused)
            change(EnvironmentLife::Running);
        if (told.life != now) change(now);
    }

    void readImages() {
        std::vector<ContainerImage> images;
        try {
            images = m_engine.images(m_passedOver);
        } catch (const ContainerFailure& failure) {
            return m_collection.cannotRead(std::string("the images: ") + failure.what());
        }
        if (images.size() > m_most.images) {
            m_collection.cannotRead("more than " + std::to_string(m_most.images) + " images; the rest is left out");
            images.resize(m_most.images);
        }
        const std::int64_t now = currentTime();
        std::map<std::string, std::string, std::less<>> before = std::exchange(m_place.images, {});
        for (const ContainerImage& image : images) {
            m_place.images[image.id] = image.name;
            const bool isNews = before.erase(image.id) == 0 && !m_isFirst;
            if (isNews) m_telling.tell(image, image.isPulled ? "pull" : "import", std::min(image.time, now));
        }
        if (images.size() == m_most.images) return;  // those beyond the bound may still be there
        for (const auto& [id, name] : before)
            m_telling.tell(ContainerImage{.id = id, .name = name, .version = {}}, "delete", now);
    }

    QORCollection& m_collection;
    ContainerEngine& m_engine;
    const ContainerCollector::Bounds m_most;
    ContainerPlace m_place;
    const bool m_isFirst;
    ContainerTelling m_telling;
    std::set<std::string> m_changed;  ///< containers of which events told
    std::uint64_t m_passedOver = 0;
};

}  // namespace

ContainerCollector::ContainerCollector(Engine engine) : ContainerCollector(engine, Bounds()) {}

ContainerCollector::ContainerCollector(Engine engine, Bounds most)
    : QORCollector(traitsOf(engine)), m_engine(engine), m_most(most) {}

bool ContainerCollector::collect(QORCollection& collection) {
    ContainerPlace place(collection.position());
    ContainerSearch search{.root = collection.root(), .isStopping = [&collection] { return collection.isStopping(); }};
    for (const auto& [id, told] : place.containers) {
        search.hasTold = true;
        search.hasRunning = search.hasRunning || isUp(told.life);
    }
    try {
        const auto engine = openEngine(m_engine, search);
        if (engine == nullptr) return false;
        ContainerReading(collection, *engine, traits().name, std::move(place), m_most).read();
    } catch (const std::runtime_error&) {
        if (!collection.isStopping()) throw;
    }
    return true;
}

}  // namespace QOR
