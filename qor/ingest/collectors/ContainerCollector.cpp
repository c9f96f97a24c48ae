#include "ingest/collectors/ContainerCollector.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>
#include <vector>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORTime.h"
#include "QORCommon/QORUtf8.h"
#include "httpclient/HttpLink.h"
#include "ingest/collectors/ContainerEngine.h"
#include "ingest/collectors/ContainerPlace.h"
#include "ingest/collectors/ContainerTelling.h"

namespace QOR {
namespace {

constexpr std::int64_t nanoseconds = 1'000'000'000;

QORCollector::Traits traitsOf(ContainerCollector::Engine engine) {
    if (engine == ContainerCollector::Engine::Docker)
        return {.name = "docker", .source = "/run/docker.sock", .every = std::chrono::minutes(1)};
    // Whoever asks starts it: it does not run while nobody does.
    return {.name = "podman", .source = "/run/podman/podman.sock", .every = std::chrono::minutes(5)};
}

/// What of a container a list tells; when it was up last is not among it.
std::string seenOf(const ListedContainer& container) {
    constexpr std::size_t length = 16;
    QORDigest digest;
    for (const std::string* const text : {&container.name, &container.state, &container.image, &container.imageId})
        digest.add(*text).add(std::string_view("\0", 1));
    for (const std::string& address : container.addresses)
        digest.add(address).add(std::string_view("\0", 1));
    return digest.hex().substr(0, length);
}

/// One run.
class ContainerReading {
public:
    ContainerReading(QORCollection& collection, ContainerEngine& engine, const std::string& name,
                     const ContainerCollector::Bounds& most)
        : m_collection(collection),
          m_engine(engine),
          m_most(most),
          m_place(collection.position()),
          m_isFirst(m_place.reached == 0),
          m_telling(collection, name, most) {}

    void read() {
        readEvents();
        std::vector<ListedContainer> containers = list();
        const std::set<std::string> turn = whoseTurn(containers);
        for (const ListedContainer& container : containers) {
            if (m_collection.isStopping()) return;
            look(container, turn.contains(container.id));
        }
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
        if (std::exchange(told.listed, EnvironmentLife::Gone) != EnvironmentLife::Gone) return false;
        m_telling.tellChange(id, told, EnvironmentLife::Gone, currentTime(), 0);
        return true;
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
        if (isNew) told.life = now;
        std::string seen = seenOf(container);
        // Events of the last moment come with the next run: no event has told what was so then already.
        const bool isUntold = !isNew && told.life != now && before == now;
        if (seen == told.seen && !isUntold && !isItsTurn && !m_changed.contains(container.id)) return;
        try {
            const std::optional<ContainerDetails> details = m_engine.details(container.id);
            if (!details) return;  // it went meanwhile, which the next run tells
            if (isUntold) tellChange(container.id, *details, now, told);
            m_telling.tell(container, *details, told);
            told.seen = std::move(seen);
        } catch (const ContainerFailure& failure) {
            m_collection.cannotRead("the container " + toUtf8(container.name) + ": " + failure.what());
        }
    }

    void tellChange(const std::string& id, const ContainerDetails& details, EnvironmentLife now, ToldContainer& told) {
        const std::optional<std::int64_t> time = now == EnvironmentLife::Off ? details.finished : details.started;
        m_telling.tellChange(id, told, now, std::min(time.value_or(currentTime()), currentTime()), details.exitCode);
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
    const std::string socket = std::string(traits().source).substr(1);
    try {
        const auto engine =
            ContainerEngine::open(collection.root() / socket, [&collection] { return collection.isStopping(); });
        if (engine == nullptr) return false;
        // A name for the other one's socket: that one tells of its containers.
        if (engine->isPodman() != (m_engine == Engine::Podman)) return false;
        ContainerReading(collection, *engine, traits().name, m_most).read();
    } catch (const HttpLost& lost) {
        if (!collection.isStopping()) throw;
    }
    return true;
}

}  // namespace QOR
