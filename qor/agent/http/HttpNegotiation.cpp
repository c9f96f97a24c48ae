#include "agent/http/HttpNegotiation.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORDigest.h"
#include "gzip/HttpGzip.h"

namespace QOR {
namespace {

constexpr std::string_view blanks = " \t";
constexpr unsigned ok = 200;
constexpr unsigned notModified = 304;
constexpr std::size_t tagSize = 32;  // digits: half of the digest is plenty
/// The greatest weight, in thousandths.
constexpr int wholeWeight = 1000;

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// What stands in front of the mark, which is taken off together with it.
std::string_view takePart(std::string_view& rest, char mark) {
    const std::string_view part = rest.substr(0, rest.find(mark));
    rest.remove_prefix(std::min(part.size() + 1, rest.size()));
    return trimmed(part);
}

/// `0`, `0.5`, `1.000` in thousandths; what is none counts as 0, so that nothing is sent that was not clearly wanted.
int weightOf(std::string_view text) {
    const bool whole = text.starts_with('1');
    if (!whole && !text.starts_with('0')) return 0;
    std::string_view digits = text.substr(1);
    if (digits.starts_with('.')) digits.remove_prefix(1);
    if (digits.size() > 3 || !std::all_of(digits.begin(), digits.end(), isDigitChar)) return 0;
    int weight = whole ? 1 : 0;
    for (std::size_t place = 0; place < 3; ++place)
        weight = weight * 10 + (place < digits.size() ? digits[place] - '0' : 0);
    return weight > wholeWeight ? 0 : weight;
}

/// Of `gzip;q=0.5`.
int weightIn(std::string_view parameters) {
    while (!parameters.empty()) {
        const std::string_view parameter = takePart(parameters, ';');
        if (parameter.size() >= 2 && isSameWord(parameter.substr(0, 2), "q=")) return weightOf(parameter.substr(2));
    }
    return wholeWeight;
}

struct Wishes {
    std::optional<int> gzip;
    std::optional<int> identity;
    std::optional<int> others;

    void add(std::string_view element) {
        const std::string_view coding = takePart(element, ';');
        if (coding.empty()) return;
        const int weight = weightIn(element);
        if (isSameWord(coding, "gzip") || isSameWord(coding, "x-gzip")) gzip = weight;
        if (isSameWord(coding, "identity")) identity = weight;
        if (coding == "*") others = weight;
    }
};

/// Takes `"x"` or `W/"x"` off the beginning. \returns x with its quotes, or nothing where none stands
std::optional<std::string_view> takeTag(std::string_view& rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of(" \t,"), rest.size()));
    if (rest.starts_with("W/")) rest.remove_prefix(2);
    const std::size_t end = rest.starts_with('"') ? rest.find('"', 1) : std::string_view::npos;
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view tag = rest.substr(0, end + 1);
    rest.remove_prefix(end + 1);
    return tag;
}

}  // namespace

bool acceptsGzip(const HttpRequest& request) {
    Wishes wishes;
    for (const HttpField& field : request.fields) {
        if (!isSameWord(field.name, "accept-encoding")) continue;
        for (std::string_view rest = field.value; !rest.empty();)
            wishes.add(takePart(rest, ','));
    }
    const int gzip = wishes.gzip ? *wishes.gzip : wishes.others.value_or(0);
    return gzip > 0 && gzip >= wishes.identity.value_or(0);
}

bool isWorthGzip(std::string_view contentType) {
    const std::string_view type = contentType.substr(0, contentType.find(';'));
    return !isSameWord(trimmed(type), "text/event-stream");
}

std::string entityTagOf(std::string_view body) {
    QORDigest digest;
    return "W/\"" + digest.add(body).hex().substr(0, tagSize) + '"';
}

bool hasAlready(const HttpRequest& request, std::string_view tag) {
    tag.remove_prefix(std::min(tag.find('"'), tag.size()));
    for (const HttpField& field : request.fields) {
        if (!isSameWord(field.name, "if-none-match")) continue;
        if (trimmed(field.value) == "*") return true;
        std::string_view rest = field.value;
        while (const std::optional<std::string_view> known = takeTag(rest)) {
            if (*known == tag) return true;
        }
    }
    return false;
}

void negotiate(const HttpRequest& request, HttpReply& reply) {
    if (reply.status != ok) return;
    if (reply.revalidated) {
        const std::string tag = entityTagOf(reply.body);
        reply.fields.emplace_back("ETag", tag);
        reply.fields.emplace_back("Cache-Control", "private, no-cache");
        if (hasAlready(request, tag)) {
            reply.status = notModified;
            reply.body.clear();
        }
    }
    if (!isWorthGzip(reply.contentType)) return;
    reply.fields.emplace_back("Vary", "Accept-Encoding");
    if (reply.body.size() < leastGzip || !acceptsGzip(request)) return;
    reply.body = HttpGzip().finish(reply.body);
    reply.fields.emplace_back("Content-Encoding", "gzip");
}

}  // namespace QOR
