#include <unistd.h>

#include <algorithm>
#include <array>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "output/Output.h"

namespace QOR {
namespace {

QORIdentityEnvironment environmentOf(const std::string& text, bool below, bool writes) {
    QORIdentityEnvironment environment{{}, below, writes};
    if (!environment.eid.fromString(text))
        throw CtlError::usage(quoteText(text) + " is no identifier of an environment");
    return environment;
}

std::string accessOf(const QORIdentity& identity) {
    if (identity.fullAccess) return "full";
    std::string text;
    for (const QORIdentityEnvironment& environment : identity.environments)
        text += (text.empty() ? "" : ", ") + environment.eid.toString() + (environment.below ? " and below" : "") +
                (environment.writes ? " (writes)" : "");
    return text.empty() ? "none" : text;
}

template <std::size_t columns>
void print(const PrintOptions& options, const std::array<std::string, columns>& names,
           const std::vector<std::array<std::string, columns>>& rows) {
    const auto output = openOutput(options);
    Output& out = *output;
    const auto printer = makePrinter(options, false, out);
    printer->begin(names);
    for (const auto& row : rows) {
        std::array<Cell, columns> cells;
        std::transform(row.begin(), row.end(), cells.begin(), [](const std::string& text) {
            return Cell{text.empty() ? Cell::Kind::Null : Cell::Kind::Text, text};
        });
        printer->row(cells);
    }
    printer->end(std::nullopt);
    out.flush();
}

std::string timeOf(const std::optional<std::int64_t>& seconds) {
    return seconds ? time2str(*seconds) : std::string();
}

}  // namespace

void runIdentityAdd(const ConnectionOptions& connection, const IdentityOptions& options) {
    QORIdentity identity;
    identity.name = options.name;
    identity.subject = options.subject.empty() ? options.name : options.subject;
    identity.kind = findIdentityKind(options.kind).value_or(QORIdentityKind::Token);
    identity.fullAccess = options.fullAccess;
    for (const std::string& text : options.environments)
        identity.environments.push_back(environmentOf(text, false, options.writes));
    for (const std::string& text : options.below)
        identity.environments.push_back(environmentOf(text, true, options.writes));
    makeBackend(connection, BackendUse::Store)->addIdentity(identity);
}

void runIdentityList(const ConnectionOptions& connection, const IdentityOptions& options, const PrintOptions& form) {
    const QORIdentityList list = makeBackend(connection, BackendUse::Inspect)->identities();
    std::vector<std::array<std::string, 4>> rows;
    for (const QORIdentity& identity : list.identities) {
        if (options.name.empty() || identity.name == options.name)
            rows.push_back({identity.name, std::string(nameOf(identity.kind)), identity.subject, accessOf(identity)});
    }
    if (rows.empty() && !options.name.empty())
        throw CtlError::answered(404, "there is no identity " + quoteText(options.name));
    print<4>(form, {"name", "kind", "subject", "access"}, rows);
}

void runIdentityRemove(const ConnectionOptions& connection, const IdentityOptions& options) {
    makeBackend(connection, BackendUse::Store)->removeIdentity(options.name);
}

void runTokenCreate(const ConnectionOptions& connection, const TokenOptions& options) {
    QORTokenRequest request{options.name};
    if (!options.expires.empty()) {
        const auto age = parseDuration(options.expires);
        if (!age || *age <= 0)
            throw CtlError::usage("--expires: " + quoteText(options.expires) + " is no time (90s, 45m, 12h, 30d, 8w)");
        request.expires = currentTime() + *age;
    }
    const std::string token = makeBackend(connection, BackendUse::Store)->createToken(request);
    FileOutput out(STDOUT_FILENO);
    out << token << "\n";
    out.flush();
}

void runTokenList(const ConnectionOptions& connection, const TokenOptions& options, const PrintOptions& form) {
    const QORIdentityList list = makeBackend(connection, BackendUse::Inspect)->identities();
    std::vector<std::array<std::string, 5>> rows;
    for (const QORTokenEntry& token : list.tokens) {
        if (options.name.empty() || token.name == options.name)
            rows.push_back(
                {token.name, token.id(), timeOf(token.created), timeOf(token.expires), timeOf(token.lastUse)});
    }
    print<5>(form, {"name", "id", "created", "expires", "last_use"}, rows);
}

void runTokenRevoke(const ConnectionOptions& connection, const TokenOptions& options) {
    const std::uint64_t revoked =
        makeBackend(connection, BackendUse::Store)->revokeTokens({options.name, {}, options.id});
    FileOutput out(STDOUT_FILENO);
    out << std::to_string(revoked) << " revoked\n";
    out.flush();
}

}  // namespace QOR
