#include "ingest/collectors/LibvirtDefinition.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <pugixml.hpp>
#include <string_view>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORXmlText.h"
#include "ingest/collectors/CollectedOperation.h"

namespace QOR {
namespace {

/// Disks, interfaces, addresses; further ones are left out.
constexpr std::size_t mostDevices = 256;

/// Nothing in it is looked up elsewhere or unfolded: entities stay what they are.
bool loadDefinition(pugi::xml_document& document, const std::string& xml) {
    return static_cast<bool>(document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8));
}

bool isIpAddress(const std::string& text) {
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    return inet_pton(AF_INET, text.c_str(), bytes.data()) == 1 || inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1;
}

void addBounded(QORInfo& info, std::string_view name, const char* text) {
    addText(info, name, libvirtText(text));
}

std::string_view withoutPrefix(std::string_view name) {
    return name.substr(name.find(':') + 1);
}

/// "http://debian.org/debian/12": tools that make domains write down what they install by such names.
QORInfo systemOf(const pugi::xml_node& metadata) {
    QORInfo system("os");
    for (const pugi::xml_node info : metadata.children()) {
        if (withoutPrefix(info.name()) != "libosinfo") continue;
        for (const pugi::xml_node one : info.children()) {
            const std::string_view id = one.attribute("id").value();
            const std::size_t version = id.rfind('/');
            if (withoutPrefix(one.name()) != "os" || version == std::string_view::npos || version == 0) continue;
            const std::size_t name = id.rfind('/', version - 1);
            if (name == std::string_view::npos) continue;
            addText(system, "name", libvirtText(std::string(id.substr(name + 1, version - name - 1))));
            addText(system, "version", libvirtText(std::string(id.substr(version + 1))));
            return system;
        }
    }
    return system;
}

/// Where a disk's or an interface's other end is: a file, a device, a network, whatever its first attribute names.
const char* sourceOf(const pugi::xml_node& device) {
    const pugi::xml_node source = device.child("source");
    for (const char* const name : {"file", "dev", "name", "dir", "volume", "network", "bridge"}) {
        if (const pugi::xml_attribute attribute = source.attribute(name)) return attribute.value();
    }
    return "";
}

QORInfo diskOf(const pugi::xml_node& disk) {
    QORInfo info("disk");
    addBounded(info, "target", disk.child("target").attribute("dev").value());
    addBounded(info, "device", disk.attribute("device").value());
    addBounded(info, "format", disk.child("driver").attribute("type").value());
    addBounded(info, "source", sourceOf(disk));
    return info;
}

QORInfo interfaceOf(const pugi::xml_node& interface) {
    QORInfo info("interface");
    addBounded(info, "mac", interface.child("mac").attribute("address").value());
    addBounded(info, "type", interface.attribute("type").value());
    addBounded(info, "source", sourceOf(interface));
    addBounded(info, "model", interface.child("model").attribute("type").value());
    return info;
}

void addDevices(QORInfo& document, const pugi::xml_node& devices, const char* name,
                QORInfo (*read)(const pugi::xml_node&)) {
    std::size_t count = 0;
    for (const pugi::xml_node device : devices.children(name)) {
        if (++count > mostDevices) return;
        if (QORInfo info = read(device); !info.empty()) document.add(std::move(info));
    }
}

std::vector<std::string> addressesOf(const pugi::xml_node& devices, const std::vector<std::string>& lent) {
    std::vector<std::string> addresses;
    const auto add = [&](const std::string& address) {
        if (addresses.size() < mostDevices && isIpAddress(address) &&
            std::find(addresses.begin(), addresses.end(), address) == addresses.end())
            addresses.push_back(address);
    };
    for (const std::string& address : lent)
        add(address);
    for (const pugi::xml_node interface : devices.children("interface")) {
        for (const pugi::xml_node ip : interface.children("ip"))
            add(ip.attribute("address").value());
    }
    return addresses;
}

/// The library tells it in KiB, whatever people wrote.
std::optional<std::int64_t> memoryOf(const pugi::xml_node& domain) {
    const std::optional<std::int64_t> kibibytes = parseInt64(domain.child("memory").text().get());
    if (!kibibytes || *kibibytes < 0) return std::nullopt;
    return *kibibytes / 1024;
}

void addMachine(QORInfo& document, const pugi::xml_node& domain) {
    addBounded(document, "cpus", domain.child("vcpu").text().get());
    addBounded(document, "hypervisor", domain.attribute("type").value());
    addBounded(document, "machine", domain.child("os").child("type").attribute("machine").value());
}

QORConfigRecord configOf(const pugi::xml_node& domain, const std::vector<std::string>& lent,
                         const std::string& baseSnapshot) {
    const pugi::xml_node type = domain.child("os").child("type");
    const pugi::xml_node devices = domain.child("devices");
    QORInfo document;
    addBounded(document, "name", domain.child("name").text().get());
    addBounded(document, "description", domain.child("description").text().get());
    addBounded(document, "architecture", type.attribute("arch").value());
    document.add("type", std::string_view(type.text().get()) == "exe" ? "container" : "virtual machine");
    if (QORInfo system = systemOf(domain.child("metadata")); !system.empty()) document.add(std::move(system));
    const std::vector<std::string> addresses = addressesOf(devices, lent);
    for (const std::string& address : addresses)
        document.add("ip", address);
    const std::optional<std::int64_t> memory = memoryOf(domain);
    if (memory) document.add("memory", std::to_string(*memory));
    addMachine(document, domain);
    addDevices(document, devices, "disk", diskOf);
    addDevices(document, devices, "interface", interfaceOf);
    addText(document, "base_snapshot_id", baseSnapshot);
    QORConfigRecord config(std::move(document));
    config.addresses = addresses;
    config.memory = memory;
    return config;
}

}  // namespace

std::string libvirtText(const std::string& text) {
    return collectedText(text);
}

std::optional<LibvirtDefinition> readLibvirtDefinition(const std::string& xml, const std::vector<std::string>& lent,
                                                       const std::string& baseSnapshot) {
    pugi::xml_document document;
    if (!loadDefinition(document, xml)) return std::nullopt;
    const pugi::xml_node domain = document.child("domain");
    if (!domain) return std::nullopt;
    const std::string title = domain.child("title").text().get();
    return LibvirtDefinition{libvirtText(title.empty() ? domain.child("name").text().get() : title),
                             configOf(domain, lent, baseSnapshot)};
}

std::optional<LibvirtSavingDefinition> readLibvirtSaving(const std::string& xml) {
    pugi::xml_document document;
    if (!loadDefinition(document, xml)) return std::nullopt;
    const pugi::xml_node saving = document.document_element();
    const std::optional<std::int64_t> time = parseInt64(saving.child("creationTime").text().get());
    if (!time || *time < 0 || *time > lastDbSecond) return std::nullopt;
    return LibvirtSavingDefinition{*time, libvirtText(saving.child("description").text().get()),
                                   libvirtText(saving.child("parent").child("name").text().get()),
                                   libvirtText(saving.child("state").text().get()),
                                   libvirtText(saving.child("memory").attribute("snapshot").value())};
}

}  // namespace QOR
