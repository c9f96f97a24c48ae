#include "agent/api/AgentBounds.h"

#include <string>

#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "agent/api/AgentProblem.h"

namespace QOR {
namespace {

[[noreturn]] void refuseBound(std::string_view name, std::string_view text, const std::string& expected) {
    throwProblem({.detail = std::string(name) + " is " + expected + ", not " + quoteText(text),
                  .code = "bad_parameter",
                  .parameter = std::string(name),
                  .found = std::string(text),
                  .expected = expected});
}

}  // namespace

std::optional<std::int64_t> timeOf(const AgentParameters& parameters, std::string_view name, std::int64_t now) {
    if (!parameters.has(name)) return std::nullopt;
    const std::string_view text = parameters.text(name);
    std::optional<std::int64_t> time = parseTime(text);
    if (!time) time = parseRelativeTime(text, now);
    if (!time) refuseBound(name, text, "a time: 2024-05-01, 2024-05-01T10:15:00Z, yesterday, -7d");
    return time;
}

QOREID environmentOf(const AgentParameters& parameters) {
    QOREID eid;
    const std::string_view text = parameters.text("env");
    if (parameters.has("env") && !eid.fromString(text)) refuseBound("env", text, "an identifier of an environment");
    return eid;
}

}  // namespace QOR
