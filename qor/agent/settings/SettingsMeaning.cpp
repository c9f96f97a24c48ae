#include "agent/settings/SettingsMeaning.h"

#include <algorithm>

#include "QORCommon/QORAgentAddress.h"
#include "agent/settings/SettingsRefusal.h"
#include "host/QORHostPaths.h"

namespace QOR {
namespace {

/// A token that goes over a network without TLS is everybody's.
bool isOfThisMachine(const std::string& host) {
    return host == "localhost" || host == "::1" || host.starts_with("127.");
}

std::vector<QORAgentAddress> addressesOf(const AgentSettings& settings) {
    std::vector<QORAgentAddress> addresses;
    if (!settings.socket.empty()) addresses.push_back(unixAddress(settings.socket));
    for (const std::string& text : settings.listen)
        addresses.push_back(readAgentAddress(text));
    return addresses;
}

bool isSamePlace(const QORAgentAddress& one, const QORAgentAddress& other) {
    return one.isUnix() == other.isUnix() && one.path == other.path && one.host == other.host && one.port == other.port;
}

/// The addresses of sockets that listen already, as they are to be spoken at.
void listenAtHanded(HttpServerOptions& server) {
    for (HttpHandedSocket& socket : server.handed) {
        const auto named = std::find_if(server.listen.begin(), server.listen.end(),
                                        [&](const auto& address) { return isSamePlace(address, socket.address); });
        using Scheme = QORAgentAddress::Scheme;
        if (named != server.listen.end()) {
            socket.address = *named;
            continue;
        }
        if (!socket.address.isUnix())
            socket.address.scheme = isOfThisMachine(socket.address.host) ? Scheme::Http : Scheme::Https;
        server.listen.push_back(socket.address);
    }
}

}  // namespace

bool usesTls(const HttpServerOptions& server) noexcept {
    return std::any_of(server.listen.begin(), server.listen.end(),
                       [](const QORAgentAddress& address) { return address.scheme == QORAgentAddress::Scheme::Https; });
}

HttpServerOptions serverOptions(const AgentSettings& settings, const std::vector<HttpHandedSocket>& handed) {
    HttpServerOptions server = settings.server;
    server.listen = addressesOf(settings);
    server.handed = handed;
    listenAtHanded(server);
    if (server.listen.empty()) server.listen.push_back(unixAddress(defaultSocketPath()));
    for (const std::string& origin : settings.origins)
        server.origins.add(origin);
    const HttpCertificateFiles& files = settings.tls;
    if (usesTls(server) && (files.certificate.empty() || files.key.empty()))
        refuseSettings("--listen https://... needs --tls-certificate and --tls-key");
    if (!usesTls(server) && !(files.certificate + files.key + files.clientAuthority).empty())
        refuseSettings("--tls-certificate, --tls-key and --tls-client-ca are for --listen https://...");
    return server;
}

QORForwardOptions forwardOptions(const AgentSettings& settings) {
    using Scheme = QORAgentAddress::Scheme;
    QORForwardOptions options = settings.forwarding;
    options.keep = settings.forwardKeep;
    QORAgentAddress& address = options.target.address;
    address = readAgentAddress(settings.forward);
    if (address.isUnix()) refuseSettings("--forward: an agent is reached at https://HOST:PORT");
    if (address.scheme == Scheme::Http && !isOfThisMachine(address.host))
        refuseSettings("--forward: plain http is for this machine's own programs: name https://" + address.authority());
    if (address.scheme == Scheme::Http && !options.target.authority.empty())
        refuseSettings("--forward-ca is for --forward https://...");
    return options;
}

void checkTogether(const AgentSettings& settings) {
    if (!settings.readOnly) return;
    if (!settings.forward.empty())
        refuseSettings("--read-only: how far records have been sent on cannot be kept for --forward");
    if (!settings.collect.empty()) refuseSettings("--read-only: what collectors bring cannot be stored for --collect");
    if (settings.keep.any())
        refuseSettings("--read-only: nothing can be removed for --keep-age, --keep-records or --keep-size");
}

std::vector<QORCollectorWish> collectorWishes(const AgentSettings& settings) {
    std::vector<QORCollectorWish> wishes;
    for (const std::string& text : settings.collect)
        wishes.push_back(readCollectorWish(text));
    checkCollectorWishes(wishes);
    return wishes;
}

std::string connectionOf(const AgentSettings& settings) {
    return settings.database.empty() ? defaultConnectionString() : connectionStringOf(settings.database);
}

}  // namespace QOR
