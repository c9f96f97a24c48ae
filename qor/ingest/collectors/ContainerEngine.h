/// \file
/// What runs containers on this machine, as it is asked for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace QOR {

/// The engine does not do what it was asked, or says what makes no sense.
class ContainerFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Further ones of a container are left out.
inline constexpr std::size_t mostContainerAddresses = 256;

/// A container as a list has it. Texts are as the engine gave them.
struct ListedContainer {
    std::string id;  ///< what tells it from all others of the engine for good
    std::string name;
    std::string state;  ///< "running": one of those that containerLife() knows
    std::string image;
    std::string imageId;
    std::vector<std::string> addresses;
    std::string run;  ///< another one each time it is started; empty where that is not known
    bool isVirtualMachine = false;
};

/// What is known of one that is looked at.
struct ContainerDetails {
    std::string hostname;
    std::string architecture;
    std::string osName;
    std::string osVersion;
    std::string platform;
    std::string description;
    std::vector<std::string> addresses;
    std::string restartPolicy;
    std::optional<std::int64_t> started;   ///< seconds since the epoch; the last time
    std::optional<std::int64_t> finished;  ///< likewise
    std::optional<std::int64_t> restarts;  ///< by the engine itself
    std::int64_t memory = 0;               ///< bytes that it may have; 0: any
    std::int64_t nanoCpus = 0;             ///< likewise, in billionths of a processor
    std::optional<std::int64_t> exitCode;  ///< the last time
    /// What this engine alone tells.
    std::vector<std::pair<std::string, std::string>> facts;
    /// Of labels those alone that say where the container belongs.
    std::vector<std::pair<std::string, std::string>> labels;
};

/// Something that happened.
struct ContainerEvent {
    std::int64_t nanoseconds = 0;  ///< since the epoch
    std::string type;              ///< "container", "image"
    std::string action;            ///< "start"
    std::string id;                ///< of what it happened to
    std::string name;
    std::string image;
    std::optional<std::int64_t> exitCode;
};

/// What containers are made from.
struct ContainerImage {
    std::string id;
    std::string name;       ///< empty: it has none
    std::string version;    ///< empty: it does not say
    std::int64_t time = 0;  ///< when it came, in seconds since the epoch
    bool isPulled = false;  ///< it came from a server
};

/// Where engines are looked for, and what is known of one already.
struct ContainerSearch {
    std::filesystem::path root;
    std::function<bool()> isStopping;
    bool hasTold = false;     ///< it has told of containers
    bool hasRunning = false;  ///< of which some were running when they were seen last
};

/// Used by one thread. Waits for answers for some seconds each, and no longer than its owner wants. Every method
/// \throws std::runtime_error when nobody answers, ContainerFailure among them
class ContainerEngine {
public:
    virtual ~ContainerEngine();
    ContainerEngine(const ContainerEngine&) = delete;
    ContainerEngine& operator=(const ContainerEngine&) = delete;

    /// All, also those that do not run. \param passedOver counts those that make no sense
    virtual std::vector<ListedContainer> containers(std::uint64_t& passedOver) = 0;
    /// Nothing for one that is gone.
    virtual std::optional<ContainerDetails> details(const ListedContainer& container) = 0;

    /// Whether its identifiers are no other's; those of others are names, which may be used again.
    virtual bool hasOwnIds() const noexcept;
    /// Whether it tells what has happened. What happens to others shows in what there is.
    virtual bool tellsEvents() const noexcept;
    /// Whether events() are fewer with an earlier end.
    virtual bool takesEnds() const noexcept;
    /// Of these seconds since the epoch, and where the engine takes no end later ones too, in the order of time.
    /// \throws HttpTooLarge
    virtual std::vector<ContainerEvent> events(std::int64_t since, std::int64_t until, std::uint64_t& passedOver);
    /// Those that there are, of an engine that tells no events.
    virtual std::vector<ContainerImage> images(std::uint64_t& passedOver);

protected:
    ContainerEngine() = default;
};

}  // namespace QOR
