#include "ingest/QORSampleData.h"
#include "QORCommon/QORTime.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace QOR {
namespace {

// The generator is written out here, down to the arithmetic: the standard library's distributions differ from one
// implementation to the next.

constexpr std::uint64_t mix(std::uint64_t value) {
    value += 0x9E3779B97F4A7C15ULL;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ULL;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBULL;
    return value ^ (value >> 31);
}

/// What a number is drawn for; keeps the sequences apart.
enum class Purpose : std::uint64_t {
    Day = 1,
    EnvironmentId,
    Environment,
    Operation,
    OperationId,
    Event,
    Backup,
    BackupId,
    Base
};

/// A sequence of numbers for one record.
class Random {
public:
    Random(std::uint64_t seed, Purpose purpose, std::uint64_t index)
        : m_state(mix(mix(mix(seed) ^ static_cast<std::uint64_t>(purpose)) ^ index)) {}

    std::uint64_t next() { return m_state = mix(m_state); }
    std::uint64_t below(std::uint64_t bound) { return next() % bound; }
    bool percent(std::uint64_t chance) { return below(100) < chance; }
    template <class T, std::size_t size>
    const T& oneOf(const std::array<T, size>& choices) {
        return choices[below(size)];
    }

private:
    std::uint64_t m_state;
};

constexpr std::int64_t firstEnd = 1704067200;         // 2024-01-01
constexpr std::int64_t logSpan = 180 * secondsOfDay;  // how far back the logs reach
constexpr std::uint64_t environmentsPerHost = 20;
constexpr std::uint64_t firstContainerNumber = 101;

struct System {
    std::string_view name, platform, version, kernel;
};
constexpr std::array<System, 6> systems{{
    {"Debian GNU/Linux", "linux", "12", "6.1.0-18-amd64"},
    {"Debian GNU/Linux", "linux", "11", "5.10.0-28-amd64"},
    {"Ubuntu", "linux", "22.04", "5.15.0-94-generic"},
    {"Ubuntu", "linux", "20.04", "5.4.0-171-generic"},
    {"AlmaLinux", "linux", "9.3", "5.14.0-362.el9.x86_64"},
    {"FreeBSD", "freebsd", "14.0", "14.0-RELEASE"},
}};
constexpr std::array<std::string_view, 10> roles{"web",   "db", "mail",  "app",   "cache",
                                                 "build", "ci", "proxy", "files", "dns"};
constexpr std::array<std::string_view, 4> domains{"example.com", "example.net", "lab.example.org",
                                                  "intern.example.org"};
constexpr std::array<std::string_view, 6> descriptions{"Customer's shop front", "Staging, may be rebuilt at any time",
                                                       "Anna's test server",    "Büro Köln",
                                                       "100% of the mail",      "Do not stop before 18:00"};
constexpr std::array<std::string_view, 3> architectures{"x86_64", "x86_64", "aarch64"};
constexpr std::array<int, 10> states{6, 6, 6, 6, 6, 6, 6, 3, 3, 1};
constexpr std::array<std::string_view, 10> operations{"start",  "stop",   "restart", "install", "upgrade",
                                                      "remove", "create", "migrate", "backup",  "snapshot"};
struct Package {
    std::string_view name, version, oldVersion;
};
constexpr std::array<Package, 8> packages{{
    {"nginx", "1.22.1-9", "1.22.0-3"},
    {"postgresql-15", "15.5-0+deb12u1", "15.3-0+deb12u1"},
    {"openssl", "3.0.11-1~deb12u2", "3.0.9-1"},
    {"curl", "7.88.1-10+deb12u5", "7.88.1-10+deb12u4"},
    {"vim", "2:9.0.1378-2", "2:9.0.1000-4"},
    {"libc6", "2.36-9+deb12u4", "2.36-9+deb12u3"},
    {"redis-server", "5:7.0.15-1~deb12u1", "5:7.0.11-1"},
    {"git", "1:2.39.2-1.1", "1:2.39.2-1"},
}};
constexpr std::array<int, 4> failures{1, 2, 13, 110};
constexpr std::array<std::string_view, 5> sources{"monitor", "agent", "scheduler", "storage", "network"};
constexpr std::array<std::string_view, 10> categories{
    "resource_alert", "resource_alert", "resource_alert", "resource_alert", "env_status",
    "env_status",     "env_status",     "env_status",     "backup_status",  "config_change"};
constexpr std::array<std::string_view, 4> resources{"memory", "disk", "cpu", "network"};
constexpr std::array<std::string_view, 3> levels{"green", "yellow", "red"};

std::string guid(std::uint64_t seed, Purpose purpose, std::uint64_t index) {
    Random random(seed, purpose, index);
    const std::array<std::uint64_t, 2> words{(random.next() & ~0xF000ULL) | 0x4000ULL,
                                             (random.next() & ~(3ULL << 62)) | (2ULL << 62)};
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (unsigned nibble = 0; nibble < 32; ++nibble) {
        if (nibble == 8 || nibble == 12 || nibble == 16 || nibble == 20) text += '-';
        text += digits[(words[nibble / 16] >> (60 - 4 * (nibble % 16))) & 15U];
    }
    return text;
}

using Json = rapidjson::Writer<rapidjson::StringBuffer>;

void text(Json& json, std::string_view key, std::string_view value) {
    json.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
    json.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
}

void number(Json& json, std::string_view key, std::int64_t value) {
    json.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
    json.Int64(value);
}

void begin(Json& json, std::string_view key) {
    json.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
    json.StartObject();
}

/// What other records tell about an environment too.
struct Environment {
    std::uint64_t index;
    bool host;
    std::string eid;
    std::string hostname;
    std::vector<std::string> addresses;
};

}  // namespace

struct QORSampleData::Impl {
    explicit Impl(const QORSampleOptions& chosen) : options(chosen) {
        hosts = std::max<std::uint64_t>(1, options.environments / environmentsPerHost);
        lastSecond =
            firstEnd + static_cast<std::int64_t>(Random(options.seed, Purpose::Day, 0).below(365)) * secondsOfDay;
    }

    QORSampleOptions options;
    std::uint64_t hosts;
    std::int64_t lastSecond;
    std::uint64_t at = 0;
    rapidjson::StringBuffer buffer;

    std::string eidOf(std::uint64_t environment) const {
        return guid(options.seed, Purpose::EnvironmentId, environment);
    }

    Environment environment(std::uint64_t index) const {
        Random random(options.seed, Purpose::Environment, index);
        Environment one{index, index < hosts, eidOf(index), {}, {}};
        one.hostname = std::string(one.host ? "node" : random.oneOf(roles)) + std::to_string(index);
        const std::uint64_t addresses = one.host ? 1 + random.below(2) : random.below(4);
        for (std::uint64_t i = 0; i < addresses; ++i)
            one.addresses.push_back(address(index, i));
        return one;
    }

    static std::string address(std::uint64_t index, std::uint64_t number) {
        const std::string low = std::to_string(index / 250 % 256) + "." + std::to_string(index % 250 + 1);
        if (number == 0) return "10." + std::to_string(index / 64000 % 256) + "." + low;
        if (number == 1) return "192.168." + low;
        return "2001:db8::" + std::to_string(index % 10000);
    }

    /// Times of a log ascend evenly, within a step at random.
    std::int64_t timeOf(std::uint64_t index, std::uint64_t count, Random& random) const {
        const auto records = static_cast<std::int64_t>(count);
        const std::int64_t start = logSpan * static_cast<std::int64_t>(index) / records;
        const std::int64_t step = std::max<std::int64_t>(logSpan / records, 1);
        return lastSecond - logSpan + start + static_cast<std::int64_t>(random.below(static_cast<std::uint64_t>(step)));
    }

    void writeConfig(Json& json, std::string_view key, const Environment& env, Random& random) const {
        const System& system = random.oneOf(systems);
        begin(json, key);
        text(json, "name", env.hostname);
        if (random.percent(60)) text(json, "description", random.oneOf(descriptions));
        if (random.percent(80)) text(json, "domain", random.oneOf(domains));
        text(json, "hostname", env.hostname);
        text(json, "architecture", random.oneOf(architectures));
        text(json, "type", env.host ? "host" : random.percent(70) ? "container" : "virtual machine");
        begin(json, "os");
        text(json, "name", system.name);
        text(json, "platform", system.platform);
        text(json, "version", system.version);
        if (random.percent(90)) text(json, "kernel", system.kernel);
        json.EndObject();
        json.Key("ip");
        json.StartArray();
        for (const std::string& address : env.addresses)
            json.String(address.c_str());
        json.EndArray();
        number(json, "memory", std::int64_t{1024} << random.below(env.host ? 8 : 4));
        number(json, "cpus", std::int64_t{1} << random.below(5));
        if (random.percent(70))
            number(json, "boot_time", lastSecond - static_cast<std::int64_t>(random.below(90 * 86400)));
    }

    void writeEnvironment(Json& json, std::uint64_t index) const {
        const Environment env = environment(index);
        Random random(options.seed, Purpose::Base, index);
        text(json, "kind", "environment");
        text(json, "eid", env.eid);
        if (!env.host) text(json, "parent_eid", eidOf(random.below(hosts)));
        if (random.percent(95)) text(json, "title", titleOf(env));
        number(json, "state", env.host ? 6 : random.oneOf(states));
        number(json, "transition", random.percent(5) ? 2 : 0);
        writeConfig(json, "config", env, random);
        json.EndObject();
        if (env.host) return;
        writeConfig(json, "virtual_config", env, random);
        if (random.percent(50)) text(json, "base_sample_id", guid(options.seed, Purpose::Base, random.below(8)));
        if (random.percent(20))
            text(json, "base_snapshot_id", guid(options.seed, Purpose::Base, 8 + random.below(100)));
        json.EndObject();
    }

    static std::string titleOf(const Environment& env) {
        return (env.host ? "Node " : "Server ") + std::to_string(env.index) + " (" + env.hostname + ")";
    }

    static void writeSource(Json& json, const Environment& env) {
        begin(json, "env");
        text(json, "eid", env.eid);
        json.EndObject();
        begin(json, "source_env");
        text(json, "eid", env.eid);
        text(json, "title", titleOf(env));
        text(json, "type", env.host ? "host" : "container");
        json.EndObject();
    }

    static void writePackage(Json& json, std::string_view op, const Package& package) {
        begin(json, "package");
        text(json, "name", package.name);
        text(json, "version", package.version);
        if (op == "upgrade") text(json, "old_version", package.oldVersion);
        text(json, "architecture", "amd64");
        json.EndObject();
    }

    void writeOperation(Json& json, std::uint64_t index) const {
        Random random(options.seed, Purpose::Operation, index);
        const std::string_view op = random.oneOf(operations);
        text(json, "kind", "operation");
        text(json, "id", guid(options.seed, Purpose::OperationId, index));
        if (index > 0 && random.percent(15)) {
            text(json, "parent_id",
                 guid(options.seed, Purpose::OperationId, index - 1 - random.below(std::min<std::uint64_t>(index, 5))));
        }
        text(json, "op", op);
        number(json, "status", random.percent(92) ? 0 : random.oneOf(failures));
        number(json, "time", timeOf(index, options.operations, random));
        if (options.environments == 0 || random.percent(1)) return;
        const Environment env = environment(random.below(options.environments));
        text(json, "eid", env.eid);
        json.Key("eids");
        json.StartArray();
        json.String(env.eid.c_str());
        if (op == "migrate") json.String(eidOf(random.below(hosts)).c_str());
        json.EndArray();
        if (random.percent(3)) return;
        begin(json, "message");
        text(json, "task_id", std::to_string(1000 + index));
        writeSource(json, env);
        if (op == "install" || op == "upgrade" || op == "remove") writePackage(json, op, random.oneOf(packages));
        json.EndObject();
    }

    void writeEvent(Json& json, std::uint64_t index) const {
        Random random(options.seed, Purpose::Event, index);
        const std::string_view category = random.oneOf(categories);
        text(json, "kind", "event");
        number(json, "time", timeOf(index, options.events, random));
        const bool ofHost = options.environments == 0 || random.percent(2);
        const Environment env = ofHost ? Environment{} : environment(random.below(options.environments));
        if (!ofHost) text(json, "eid", env.eid);
        text(json, "source", random.oneOf(sources));
        text(json, "category", category);
        if (random.percent(4)) return;
        begin(json, "info");
        if (!ofHost) writeSource(json, env);
        if (category == "resource_alert") {
            text(json, "resource", random.oneOf(resources));
            text(json, "level", random.oneOf(levels));
            number(json, "value", static_cast<std::int64_t>(random.below(101)));
            number(json, "limit", 90);
        } else if (category == "env_status") {
            number(json, "old_state", random.oneOf(states));
            number(json, "new_state", random.oneOf(states));
        }
        json.EndObject();
    }

    void writeBackup(Json& json, std::uint64_t index) const {
        Random random(options.seed, Purpose::Backup, index);
        text(json, "kind", "backup");
        text(json, "id", guid(options.seed, Purpose::BackupId, index));
        number(json, "time", timeOf(index, options.backups, random));
        number(json, "size", static_cast<std::int64_t>(random.below(200'000'000'000ULL)));
        number(json, "type", static_cast<std::int64_t>(random.below(3)));
        if (random.percent(50)) text(json, "description", random.oneOf(descriptions));
        if (options.environments == 0) return;
        const Environment env = environment(random.below(options.environments));
        text(json, "eid", env.eid);
        if (random.percent(85)) text(json, "storage_eid", eidOf(random.below(hosts)));
        text(json, "name", env.hostname);
        if (random.percent(95)) text(json, "hostname", env.hostname + "." + std::string(random.oneOf(domains)));
        begin(json, "info");
        text(json, "veid", std::to_string(firstContainerNumber + env.index));
        if (!env.addresses.empty()) text(json, "ip", env.addresses.front());
        text(json, "title", titleOf(env));
        json.EndObject();
    }

    void write(Json& json, std::uint64_t index) const {
        if (index < options.environments) return writeEnvironment(json, index);
        index -= options.environments;
        if (index < options.operations) return writeOperation(json, index);
        index -= options.operations;
        if (index < options.events) return writeEvent(json, index);
        writeBackup(json, index - options.events);
    }
};

QORSampleData::QORSampleData(const QORSampleOptions& options) : m_impl(std::make_unique<Impl>(options)) {}
QORSampleData::~QORSampleData() = default;

std::uint64_t QORSampleData::total() const noexcept {
    const QORSampleOptions& options = m_impl->options;
    return options.environments + options.operations + options.events + options.backups;
}

bool QORSampleData::next(std::string& line) {
    if (m_impl->at == total()) return false;
    m_impl->buffer.Clear();
    Json json(m_impl->buffer);
    json.StartObject();
    m_impl->write(json, m_impl->at++);
    json.EndObject();
    line.assign(m_impl->buffer.GetString(), m_impl->buffer.GetSize());
    return true;
}

}  // namespace QOR
