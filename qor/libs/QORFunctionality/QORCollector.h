/// \file
/// Collectors: what brings in what a machine knows of itself, and the registry by which the host finds them.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"

namespace QOR {

/// One run of a collector, as the host lends it: what it needs to know, and where its records go. Used by the thread
/// that runs the collector, for as long as the run lasts.
class QOR_API QORCollection {
public:
    virtual ~QORCollection();

    // In the order of their slots, which plug-ins are compiled against.
    /// The folder that stands for "/". What a collector reads is below it.
    virtual const std::filesystem::path& root() const noexcept = 0;
    /// The environment that this machine is.
    virtual const QOREID& machine() const noexcept = 0;
    /// What setPosition() was given in the last run of which everything was stored; empty before the first.
    virtual const std::string& position() const noexcept = 0;
    /// The run has taken too long, the host is about to end, or whoever asked for it has gone: nothing is taken any
    /// more, and the next run begins at the same position.
    virtual bool isStopping() const noexcept = 0;
    /// Brings a record, as a line that `import` would take. One that is there already as it is changes nothing: give
    /// operations, and events too, identifiers that are the same whenever they are read. A record that makes no sense
    /// is refused, and the run has failed.
    virtual void add(std::string_view record) = 0;
    /// How far the source has been read, in words of the collector's own; kept once everything has been stored.
    virtual void setPosition(std::string position) = 0;
    /// Something of the source cannot be read: which file, and why. The rest is brought and stored all the same, and
    /// the run has failed.
    virtual void cannotRead(std::string what) = 0;
    /// So many lines of the source made no sense.
    virtual void passOver(std::uint64_t lines) = 0;

    QORCollection(const QORCollection&) = delete;
    QORCollection& operator=(const QORCollection&) = delete;

protected:
    QORCollection() = default;
};

/// Reads one source. Making the object makes it known to the registry, destroying it forgets it; both happen while a
/// plug-in is loaded or unloaded. The host runs it when it is told to, never twice at once, each time on another thread
/// perhaps, which serves no request.
class QOR_API QORCollector {
public:
    /// What the host and people are told of it.
    struct Traits {
        std::string name;                                   ///< by which settings call it: see QORCollectorRegistry
        std::string source;                                 ///< what it reads, for people: "/var/log/dpkg.log"
        std::chrono::seconds every{std::chrono::hours(1)};  ///< between the beginnings of runs, unless it is told
        std::chrono::milliseconds deadline{std::chrono::minutes(1)};  ///< without records stored: it hangs
    };

    /// Reads what is new.
    /// \returns false when the source is not there, which is no failure
    /// \throws std::exception that says why it failed; what was brought before is stored
    virtual bool collect(QORCollection& collection) = 0;
    virtual ~QORCollector();

    QORCollector(const QORCollector&) = delete;
    QORCollector& operator=(const QORCollector&) = delete;

    const Traits& traits() const noexcept { return m_traits; }

protected:
    explicit QORCollector(Traits traits);

private:
    const Traits m_traits;
};

/// All collectors of the process, in the order in which they were made. A name has letters, digits and '-', 64 at most,
/// is not "all", and of two that bear one the first counts; a collector that cannot be called by its name is none of
/// them. Thread-safe.
class QOR_API QORCollectorRegistry {
public:
    static QORCollectorRegistry& instance();
    /// Valid for as long as the plug-ins stay loaded.
    std::vector<QORCollector*> all() const;
    /// Why collectors that exist are none of them, in the order in which they were made: whoever made them asks, since
    /// nothing can be thrown while a plug-in is loaded.
    std::vector<std::string> refusals() const;

private:
    struct Refusal {
        const QORCollector* collector;
        std::string reason;
    };

    friend class QORCollector;
    QORCollectorRegistry() = default;
    void add(QORCollector* collector);
    void remove(QORCollector* collector) noexcept;
    /// \returns why it cannot be one of them; empty where it can
    std::string faultOf(const std::string& name) const;
    mutable std::mutex m_mutex;
    std::vector<QORCollector*> m_collectors;
    std::vector<Refusal> m_refusals;
};

}  // namespace QOR
