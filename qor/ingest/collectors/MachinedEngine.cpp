#include "ingest/collectors/MachinedEngine.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace QOR {
namespace {

constexpr const char* machined = "org.freedesktop.machine1";
constexpr const char* managerPath = "/org/freedesktop/machine1";
constexpr const char* managerInterface = "org.freedesktop.machine1.Manager";
constexpr std::string_view host = "host";
constexpr std::int64_t microsecondsOfSecond = 1'000'000;

SystemBus::Question toManager(const char* member, std::vector<std::string> texts = {}) {
    return {.service = machined,
            .path = managerPath,
            .interface = managerInterface,
            .member = member,
            .texts = std::move(texts)};
}

/// Its words for states as those of other engines.
std::string stateOf(const std::string& state) {
    if (state == "opening") return "initialized";
    if (state == "closing") return "stopping";
    return state == "running" || state == "abandoned" ? "running" : "unknown";
}

/// Empty for what reaches no further than its own link, and for what is none.
std::string addressText(int family, const std::string& bytes) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    in6_addr address{};
    const std::size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
    if ((family != AF_INET && family != AF_INET6) || bytes.size() != size) return {};
    std::memcpy(&address, bytes.data(), size);
    const bool isOfLink = family == AF_INET6 ? IN6_IS_ADDR_LINKLOCAL(&address) : bytes.starts_with("\xa9\xfe");
    if (isOfLink || ::inet_ntop(family, &address, text.data(), text.size()) == nullptr) return {};
    return text.data();
}

}  // namespace

std::unique_ptr<MachinedEngine> MachinedEngine::open(const ContainerSearch& search) {
    auto bus = SystemBus::open(search.root / "run/dbus/system_bus_socket", search.isStopping);
    if (bus == nullptr) return nullptr;
    std::unique_ptr<MachinedEngine> engine(new MachinedEngine(std::move(bus)));
    try {
        engine->list(search.hasRunning);
    } catch (const SystemBusFailure& failure) {
        if (!failure.isNobodyThere()) throw;
        return nullptr;
    }
    return engine;
}

void MachinedEngine::list(bool mayStart) {
    SystemBus::Question question = toManager("ListMachines");
    question.mayStart = mayStart;
    SystemBusAnswer answer = m_bus->ask(question);
    answer.enter('a', "(ssso)");
    while (answer.enter('r', "ssso")) {
        std::string name = answer.text();
        const std::string kind = answer.text();
        answer.skip("s");
        std::string path = answer.text('o');
        answer.exit();
        if (kind != host) m_listed[std::move(name)] = {std::move(path), kind == "vm"};
    }
}

std::vector<ListedContainer> MachinedEngine::containers(std::uint64_t& passedOver) {
    std::vector<ListedContainer> containers;
    const auto add = [&](const std::string& name, std::string state) -> ListedContainer& {
        ListedContainer& container = containers.emplace_back();
        container.id = name;
        container.name = name;
        container.state = std::move(state);
        return container;
    };
    for (const auto& [name, listed] : m_listed) {
        if (name.empty()) {
            ++passedOver;
            continue;
        }
        const std::optional<Machine> one = machine(listed.first);
        if (!one || one->isOther) continue;
        ListedContainer& container = add(name, stateOf(one->state));
        container.run = std::to_string(one->began);
        container.isVirtualMachine = listed.second;
        m_machines[name] = *one;
    }
    listImages();
    for (const auto& [name, image] : m_images) {
        if (!m_listed.contains(name)) add(name, "stopped");
    }
    return containers;
}

/// Those whose names begin with a dot are on their way, or stand for this machine.
void MachinedEngine::listImages() {
    SystemBusAnswer answer = m_bus->ask(toManager("ListImages"));
    answer.enter('a', "(ssbttto)");
    while (answer.enter('r', "ssbttto")) {
        std::string name = answer.text();
        Image image;
        image.type = answer.text();
        answer.skip("b");
        image.made = answer.count();
        answer.skip("tto");
        answer.exit();
        if (!name.empty() && !name.starts_with('.')) m_images[std::move(name)] = std::move(image);
    }
}

/// \returns nothing for one that is gone
std::optional<MachinedEngine::Machine> MachinedEngine::machine(const std::string& path) {
    try {
        SystemBusAnswer answer = m_bus->ask({.service = machined,
                                             .path = path.c_str(),
                                             .interface = "org.freedesktop.DBus.Properties",
                                             .member = "GetAll",
                                             .texts = {"org.freedesktop.machine1.Machine"}});
        Machine machine;
        answer.enter('a', "{sv}");
        while (answer.enter('e', "sv")) {
            const std::string name = answer.text();
            const std::string type = answer.type();
            std::string* const text = name == "State"           ? &machine.state
                                      : name == "Service"       ? &machine.service
                                      : name == "RootDirectory" ? &machine.root
                                                                : nullptr;
            if (text != nullptr && type == "s") {
                answer.enter('v', "s");
                *text = answer.text();
                answer.exit();
            } else if (name == "Timestamp" && type == "t") {
                answer.enter('v', "t");
                machine.began = answer.count();
                answer.exit();
            } else {
                answer.skip("v");
            }
            answer.exit();
        }
        machine.isOther = machine.service.starts_with("libvirt");
        return machine;
    } catch (const SystemBusFailure& failure) {
        if (!failure.isUnknown()) throw;
        return std::nullopt;
    }
}

std::optional<ContainerDetails> MachinedEngine::details(const ListedContainer& container) {
    ContainerDetails details;
    if (const auto image = m_images.find(container.name); image != m_images.end())
        details.facts.emplace_back("image_type", image->second.type);
    const auto machine = m_machines.find(container.name);
    if (machine == m_machines.end()) return details;
    details.facts.emplace_back("service", machine->second.service);
    details.facts.emplace_back("root", machine->second.root);
    if (machine->second.began > 0)
        details.started = static_cast<std::int64_t>(machine->second.began / microsecondsOfSecond);
    try {
        details.addresses = addresses(container.name);
        describeSystem(container.name, details);
    } catch (const SystemBusFailure& failure) {
        // What is in a machine cannot be seen of every one: of none whose processes are not this machine's.
        if (failure.name().empty()) throw;
    }
    return details;
}

std::vector<std::string> MachinedEngine::addresses(const std::string& name) {
    SystemBusAnswer answer = m_bus->ask(toManager("GetMachineAddresses", {name}));
    std::vector<std::string> addresses;
    answer.enter('a', "(iay)");
    while (answer.enter('r', "iay")) {
        const std::int32_t family = answer.number();
        std::string address = addressText(family, answer.bytes());
        answer.exit();
        if (!address.empty() && addresses.size() < mostContainerAddresses) addresses.push_back(std::move(address));
    }
    return addresses;
}

void MachinedEngine::describeSystem(const std::string& name, ContainerDetails& details) {
    SystemBusAnswer answer = m_bus->ask(toManager("GetMachineOSRelease", {name}));
    answer.enter('a', "{ss}");
    while (answer.enter('e', "ss")) {
        const std::string key = answer.text();
        std::string value = answer.text();
        answer.exit();
        if (key == "NAME") {
            details.osName = std::move(value);
        } else if (key == "VERSION_ID") {
            details.osVersion = std::move(value);
        }
    }
}

}  // namespace QOR
