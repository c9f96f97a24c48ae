// The part of a request's target behind '?', with its parameters.
//
// What is refused is refused as 400 with a reason. What is taken is text: UTF-8 without NUL, numbers within their
// bounds, one value a name; and written down plainly, each byte as an escape, it is taken as the same.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORText.h"
#include "agent/api/AgentParameters.h"
#include "agent/api/AgentProblem.h"

namespace {

using QOR::AgentParameter;
using QOR::AgentParameters;
using Kind = AgentParameter::Kind;

constexpr std::array<std::string_view, 3> forms{"json", "csv", "xml"};
constexpr std::array<AgentParameter, 5> known{{
    {.name = "where"},
    {.name = "fields", .kind = Kind::List},
    {.name = "limit", .kind = Kind::Number, .range = {1, 10'000}},
    {.name = "distinct", .kind = Kind::Flag},
    {.name = "format", .kind = Kind::Choice, .choices = forms},
}};

void require(bool holds, const char* what) {
    if (holds) return;
    static_cast<void>(std::fprintf(stderr, "%s\n", what));
    std::abort();
}

/// Nothing for a query that is refused.
std::optional<AgentParameters> read(std::string_view query) {
    try {
        return AgentParameters::ofQuery(query, known);
    } catch (const QOR::AgentProblemException& exception) {
        require(exception.problem().status == 400, "it was refused otherwise than as 400");
        require(!exception.problem().detail.empty(), "it was refused without a reason");
        require(QOR::isUtf8(exception.problem().detail), "the reason is no text");
    }
    return std::nullopt;
}

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        char escape[4];
        static_cast<void>(std::snprintf(escape, sizeof escape, "%%%02x", static_cast<unsigned char>(c)));
        out += escape;
    }
    return out;
}

std::string written(const AgentParameters& parameters) {
    std::string query;
    for (const AgentParameter& one : known) {
        if (!parameters.has(one.name)) continue;
        query += (query.empty() ? "" : "&") + escaped(one.name) + "=" + escaped(parameters.text(one.name));
    }
    return query;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parameters = read(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!parameters) return 0;
    for (const AgentParameter& one : known) {
        const std::string_view text = parameters->text(one.name);
        require(QOR::isUtf8(text) && text.find('\0') == std::string_view::npos, "a value is no text");
    }
    if (parameters->has("limit"))
        require(*parameters->number("limit") >= 1 && *parameters->number("limit") <= 10'000,
                "a number is out of bounds");
    const auto again = read(written(*parameters));
    require(again.has_value(), "written plainly it was refused");
    for (const AgentParameter& one : known) {
        require(
            again->has(one.name) == parameters->has(one.name) && again->text(one.name) == parameters->text(one.name),
            "written plainly it was taken as something else");
    }
    return 0;
}
