#include "forward/ForwardReply.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "QORCommon/QORNumbers.h"

namespace QOR {
namespace {

using What = ForwardOutcome::What;
using rapidjson::Document;
using rapidjson::Value;

constexpr unsigned done = 200;
constexpr unsigned forbidden = 403;
constexpr unsigned tooLarge = 413;

std::string textOf(const Value& object, const char* name) {
    if (!object.IsObject() || !object.HasMember(name) || !object[name].IsString()) return {};
    return {object[name].GetString(), object[name].GetStringLength()};
}

std::string reasonOf(const ForwardReply& reply, const Document& document) {
    std::string reason = "it answers " + std::to_string(reply.status);
    const std::string detail = textOf(document, "detail");
    return detail.empty() ? reason : reason + ": " + detail;
}

/// The line that a refusal begins with: "line 12: the event is about ...".
std::optional<std::size_t> lineIn(std::string_view detail, std::size_t lines) {
    constexpr std::string_view begin = "line ";
    if (!detail.starts_with(begin)) return std::nullopt;
    const auto number = parseInt64(detail.substr(begin.size(), detail.find(':') - begin.size()));
    if (!number || *number < 1 || static_cast<std::size_t>(*number) > lines) return std::nullopt;
    return static_cast<std::size_t>(*number);
}

ForwardOutcome ofResult(const Document& document, std::size_t lines) {
    ForwardOutcome outcome;
    if (!document.IsObject() || !document.HasMember("refused") || !document["refused"].IsArray() ||
        !document.HasMember("lastLine")) {
        outcome.reason = "it answers something else than what became of records";
        return outcome;
    }
    if (document.HasMember("failure")) {
        outcome.reason = textOf(document["failure"], "reason");
        return outcome;
    }
    if (!document["lastLine"].IsUint64() || document["lastLine"].GetUint64() != lines) {
        outcome.reason = "it has not read all that it was sent";
        return outcome;
    }
    for (const Value& refused : document["refused"].GetArray()) {
        if (!refused.IsObject() || !refused.HasMember("line") || !refused["line"].IsUint64()) continue;
        const std::uint64_t line = refused["line"].GetUint64();
        if (line >= 1 && line <= lines) outcome.refused.emplace_back(line, textOf(refused, "reason"));
    }
    outcome.what = What::Taken;
    return outcome;
}

}  // namespace

ForwardOutcome outcomeOf(const ForwardReply& reply, std::size_t lines) {
    Document document;
    document.Parse(reply.body.data(), reply.body.size());
    if (reply.status == done) return ofResult(document, lines);
    ForwardOutcome outcome;
    outcome.reason = reasonOf(reply, document);
    if (reply.status == tooLarge) outcome.what = What::TooLarge;
    if (reply.status != forbidden) return outcome;
    // Without a line the sender as a whole is not let in, and not this record.
    const std::string detail = textOf(document, "detail");
    if (const auto line = lineIn(detail, lines)) {
        outcome.what = What::Refused;
        outcome.refused.emplace_back(*line, detail.substr(std::min(detail.find(':') + 2, detail.size())));
    }
    return outcome;
}

}  // namespace QOR
