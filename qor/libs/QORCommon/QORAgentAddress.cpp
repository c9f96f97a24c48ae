#include "QORCommon/QORAgentAddress.h"

#include <charconv>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

constexpr std::string_view unixScheme = "unix:";
constexpr std::string_view httpScheme = "http://";
constexpr std::string_view httpsScheme = "https://";

[[noreturn]] void refuseAddress(std::string_view text, const char* why) {
    throw QORException(errBadRequest, quoteText(std::string(text)) + " is no address of an agent: " + why,
                       QOR_SOURCE_PATH);
}

std::uint16_t readPort(std::string_view text, std::string_view digits) {
    std::uint16_t port = 0;
    const char* const end = digits.data() + digits.size();
    const auto [rest, error] = std::from_chars(digits.data(), end, port);
    if (digits.empty() || rest != end || error != std::errc())
        refuseAddress(text, "a port is a number from 0 to 65535");
    return port;
}

bool isHost(std::string_view host) {
    return !host.empty() && host.find_first_of(" \t\r\n/?#@[]") == std::string_view::npos;
}

QORAgentAddress readAuthority(std::string_view text, QORAgentAddress::Scheme scheme, std::string_view authority) {
    if (authority.ends_with('/')) authority.remove_suffix(1);
    const std::size_t colon = authority.rfind(':');
    const std::size_t bracket = authority.rfind(']');
    if (colon == std::string_view::npos || (bracket != std::string_view::npos && bracket > colon))
        refuseAddress(text, "its port is missing");
    std::string_view host = authority.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
        if (host.find(':') == std::string_view::npos) refuseAddress(text, "brackets are for IPv6");
    } else if (host.find(':') != std::string_view::npos) {
        refuseAddress(text, "an IPv6 address stands in brackets");
    }
    if (!isHost(host)) refuseAddress(text, "its host is missing or no name");
    return {scheme, {}, std::string(host), readPort(text, authority.substr(colon + 1))};
}

}  // namespace

std::string QORAgentAddress::authority() const {
    const bool brackets = host.find(':') != std::string::npos;
    return (brackets ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string QORAgentAddress::text() const {
    if (isUnix()) return std::string(unixScheme) + path;
    return std::string(scheme == Scheme::Http ? httpScheme : httpsScheme) + authority();
}

QORAgentAddress unixAddress(const std::string& path) {
    return {QORAgentAddress::Scheme::Unix, path};
}

QORAgentAddress readAgentAddress(std::string_view text) {
    using Scheme = QORAgentAddress::Scheme;
    if (text.starts_with(unixScheme)) {
        const std::string_view path = text.substr(unixScheme.size());
        if (path.empty()) refuseAddress(text, "the path of the socket is missing");
        if (path.find('\0') != std::string_view::npos) refuseAddress(text, "a path has no zero byte");
        return unixAddress(std::string(path));
    }
    if (text.starts_with(httpScheme)) return readAuthority(text, Scheme::Http, text.substr(httpScheme.size()));
    if (text.starts_with(httpsScheme)) return readAuthority(text, Scheme::Https, text.substr(httpsScheme.size()));
    refuseAddress(text, "one is written unix:PATH, http://HOST:PORT or https://HOST:PORT");
}

}  // namespace QOR
