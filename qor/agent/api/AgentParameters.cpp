#include "agent/api/AgentParameters.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORText.h"
#include "agent/api/AgentProblem.h"

namespace QOR {
namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

[[noreturn]] void refuse(std::string_view parameter, std::string detail, std::string_view found = {},
                         std::string expected = {}) {
    throwProblem({.detail = std::move(detail),
                  .code = "bad_parameter",
                  .parameter = std::string(parameter),
                  .found = std::string(found),
                  .expected = std::move(expected)});
}

std::string joined(std::span<const std::string_view> words) {
    std::string text;
    for (const std::string_view word : words)
        text.append(text.empty() ? "" : word == words.back() ? " or " : ", ").append(word);
    return text;
}

/// \param spelled as the request has it
const AgentParameter& lookUp(const std::string& name, std::string_view spelled, std::span<const AgentParameter> known) {
    const auto found =
        std::find_if(known.begin(), known.end(), [&](const AgentParameter& one) { return one.name == name; });
    if (found != known.end()) return *found;
    std::vector<std::string_view> names;
    for (const AgentParameter& one : known)
        names.push_back(one.name);
    const std::vector<std::string_view> near = nearestNames(name, names);
    throwProblem({.detail = "unknown parameter " + quoteText(spelled),
                  .code = "unknown_parameter",
                  .parameter = name,
                  .expected = joined(names),
                  .suggestion = near.empty() ? std::string() : std::string(near.front())});
}

[[noreturn]] void refuseNumber(const AgentParameter& parameter, const std::string& value) {
    const std::string name(parameter.name);
    const std::string advice = parameter.advice.empty() ? "" : ": " + std::string(parameter.advice);
    refuse(
        name, describeBadNumber(name, value, parameter.range) + advice, value,
        "a whole number from " + std::to_string(parameter.range.least) + " to " + std::to_string(parameter.range.most));
}

void check(const AgentParameter& parameter, const std::string& value) {
    switch (parameter.kind) {
        case AgentParameter::Kind::Number:
            if (!readPlainNumber(value, parameter.range)) refuseNumber(parameter, value);
            break;
        case AgentParameter::Kind::Flag:
            if (!value.empty() && value != "true" && value != "false")
                refuse(parameter.name, std::string(parameter.name) + " is true or false, not " + quoteText(value),
                       value, "true or false");
            break;
        case AgentParameter::Kind::Choice:
            if (std::find(parameter.choices.begin(), parameter.choices.end(), value) == parameter.choices.end())
                refuse(parameter.name,
                       std::string(parameter.name) + " is " + joined(parameter.choices) + ", not " + quoteText(value),
                       value, joined(parameter.choices));
            break;
        case AgentParameter::Kind::Text:
        case AgentParameter::Kind::List:
            break;
    }
}

/// What a member of a body says in place of a text.
std::string textOf(const AgentParameter& parameter, const rapidjson::Value& value) {
    using Kind = AgentParameter::Kind;
    if (value.IsString()) return {value.GetString(), value.GetStringLength()};
    if (parameter.kind == Kind::Number && value.IsInt64()) return std::to_string(value.GetInt64());
    if (parameter.kind == Kind::Flag && value.IsBool()) return value.GetBool() ? "true" : "false";
    if (parameter.kind == Kind::List && value.IsArray()) {
        std::string list;
        for (const rapidjson::Value& item : value.GetArray()) {
            if (!item.IsString())
                refuse(parameter.name, std::string(parameter.name) + " is a list of texts", {}, "texts");
            if (!list.empty()) list += ',';
            list.append(item.GetString(), item.GetStringLength());
        }
        return list;
    }
    const char* const expected = parameter.kind == Kind::Number ? "a whole number"
                                 : parameter.kind == Kind::Flag ? "true or false"
                                 : parameter.kind == Kind::List ? "a list of texts"
                                                                : "a text";
    refuse(parameter.name, std::string(parameter.name) + " is " + expected, {}, expected);
}

}  // namespace

std::string percentDecoded(std::string_view text, std::string_view what, bool plusIsBlank) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            out += plusIsBlank && text[at] == '+' ? ' ' : text[at];
            continue;
        }
        const int high = at + 1 < text.size() ? hexDigit(text[at + 1]) : -1;
        const int low = at + 2 < text.size() ? hexDigit(text[at + 2]) : -1;
        if (high < 0 || low < 0)
            refuse(what, quoteText(text.substr(at, 3)) + " is no percent-escape", text.substr(at, 3),
                   "two hexadecimal digits behind %");
        out += static_cast<char>(high * 16 + low);
        at += 2;
    }
    if (!isUtf8(out)) refuse(what, quoteText(out) + " is no UTF-8");
    if (out.find('\0') != std::string::npos) refuse(what, quoteText(out) + " holds a NUL");
    return out;
}

AgentParameters AgentParameters::ofQuery(std::string_view query, std::span<const AgentParameter> known) {
    AgentParameters parameters;
    while (!query.empty()) {
        const std::string_view one = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(one.size() + 1, query.size()));
        const std::size_t equals = std::min(one.find('='), one.size());
        std::string name = percentDecoded(one.substr(0, equals), "", true);
        std::string value = percentDecoded(one.substr(std::min(equals + 1, one.size())), name, true);
        parameters.add(lookUp(name, one, known), std::move(value));
    }
    parameters.requireAll(known);
    return parameters;
}

AgentParameters AgentParameters::ofBody(std::string_view json, std::span<const AgentParameter> known) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag>(json.data(), json.size());
    if (document.HasParseError())
        throwProblem({.detail = std::string("the body is no JSON: ") +
                                rapidjson::GetParseError_En(document.GetParseError()) + " (at byte " +
                                std::to_string(document.GetErrorOffset()) + ")",
                      .code = "bad_body",
                      .position = document.GetErrorOffset()});
    if (!document.IsObject())
        throwProblem({.detail = "the body is no object of JSON", .code = "bad_body", .expected = "an object"});
    AgentParameters parameters;
    std::set<std::string> seen;  // also what is null
    for (rapidjson::SizeType at = 0; at < document.MemberCount(); ++at) {
        const auto& member = document.MemberBegin()[at];
        std::string name(member.name.GetString(), member.name.GetStringLength());
        const AgentParameter& parameter = lookUp(name, name, known);
        if (!seen.insert(name).second) refuse(name, name + " is given twice");
        if (member.value.IsNull()) continue;
        std::string value = textOf(parameter, member.value);
        if (value.find('\0') != std::string::npos) refuse(name, quoteText(value) + " holds a NUL");
        parameters.add(parameter, std::move(value));
    }
    parameters.requireAll(known);
    return parameters;
}

void AgentParameters::add(const AgentParameter& parameter, std::string value) {
    std::string name(parameter.name);
    if (has(name)) refuse(name, name + " is given twice");
    check(parameter, value);
    m_values.emplace(std::move(name), std::move(value));
}

void AgentParameters::requireAll(std::span<const AgentParameter> known) const {
    for (const AgentParameter& parameter : known) {
        if (parameter.required && !has(parameter.name))
            throwProblem({.detail = std::string(parameter.name) + " is missing: " + std::string(parameter.meaning),
                          .code = "missing_parameter",
                          .parameter = std::string(parameter.name)});
    }
}

std::string_view AgentParameters::text(std::string_view name) const {
    const auto found = m_values.find(name);
    return found == m_values.end() ? std::string_view() : std::string_view(found->second);
}

// Neither names nor values hold a NUL.
std::string AgentParameters::asText() const {
    std::string text;
    for (const auto& [name, value] : m_values)
        text.append(name).append(1, '\0').append(value).append(1, '\0');
    return text;
}

std::optional<std::uint64_t> AgentParameters::number(std::string_view name) const {
    return has(name) ? readPlainNumber(text(name), {0, mostNumber}) : std::nullopt;
}

}  // namespace QOR
