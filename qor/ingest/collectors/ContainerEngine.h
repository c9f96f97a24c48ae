/// \file
/// A container engine of this machine, asked at its socket: Docker and Podman, which answer alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ingest/JsonTree.h"

namespace QOR {

/// The engine does not do what it was asked, or says what makes no sense.
class ContainerFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A container as a list has it. Texts are as the engine gave them.
struct ListedContainer {
    std::string id;  ///< of 128 letters and digits at most
    std::string name;
    std::string state;  ///< "running"
    std::string image;
    std::string imageId;
    std::vector<std::string> addresses;
};

/// What is known of one that is looked at.
struct ContainerDetails {
    std::string hostname;
    std::string platform;
    std::string restartPolicy;
    std::optional<std::int64_t> started;   ///< seconds since the epoch; the last time
    std::optional<std::int64_t> finished;  ///< likewise
    std::int64_t restarts = 0;             ///< by the engine itself
    std::int64_t memory = 0;               ///< bytes that it may have; 0: any
    std::int64_t nanoCpus = 0;             ///< likewise, in billionths of a processor
    std::int64_t exitCode = 0;             ///< the last time
    bool isOutOfMemory = false;            ///< that is why it ended
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

/// Used by one thread. Waits for answers for some seconds each, and no longer than its owner wants. Every method
/// \throws HttpLost when nobody answers, ContainerFailure
class ContainerEngine {
public:
    /// \returns null when nobody listens there
    static std::unique_ptr<ContainerEngine> open(const std::filesystem::path& socket, std::function<bool()> isStopping);
    ~ContainerEngine();
    ContainerEngine(const ContainerEngine&) = delete;
    ContainerEngine& operator=(const ContainerEngine&) = delete;

    bool isPodman() const noexcept { return m_isPodman; }
    /// Whether events() are fewer with an earlier end.
    bool takesEnds() const noexcept { return !m_isPodman; }
    /// All, also those that do not run. \param passedOver counts those that make no sense
    std::vector<ListedContainer> containers(std::uint64_t& passedOver);
    /// Nothing for one that is gone.
    std::optional<ContainerDetails> details(const std::string& id);
    /// Of these seconds since the epoch, and where the engine takes no end later ones too, in the order of time.
    /// \throws HttpTooLarge
    std::vector<ContainerEvent> events(std::int64_t since, std::int64_t until, std::uint64_t& passedOver);

private:
    class Link;

    explicit ContainerEngine(std::unique_ptr<Link> link);
    void readVersion();
    const JsonValue& ask(const std::string& path);
    const JsonValue* find(const std::string& path);

    const std::unique_ptr<Link> m_link;
    std::string m_version;  ///< of what is asked: "/v1.41"
    bool m_isPodman = false;
    std::string m_body;
    JsonTree m_json;
};

}  // namespace QOR
