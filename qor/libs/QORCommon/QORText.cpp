#include "QORCommon/QORText.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace QOR {
namespace {

constexpr std::string_view base64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t notBase64 = 0xFF;

constexpr std::array<std::uint8_t, 256> makeBase64Values() {
    std::array<std::uint8_t, 256> values{};
    values.fill(notBase64);
    for (std::size_t i = 0; i < base64Alphabet.size(); ++i) {
        values[static_cast<unsigned char>(base64Alphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return values;
}
constexpr auto base64Values = makeBase64Values();

std::uint8_t byteAt(std::string_view text, std::size_t at) {
    return static_cast<std::uint8_t>(text[at]);
}

/// Bytes of the well-formed sequence that begins at `at`, which holds a byte above 127; 0 when there is none.
std::size_t sequenceLength(std::string_view text, std::size_t at) noexcept {
    const std::uint8_t lead = byteAt(text, at);
    // The second byte's range shuts out overlong forms, surrogates and code points beyond the last.
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    std::size_t length = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (text.size() - at < length) return 0;
    if (byteAt(text, at + 1) < low || byteAt(text, at + 1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if ((byteAt(text, at + i) & 0xC0) != 0x80) return 0;
    }
    return length;
}

/// A byte behind a backslash. \param prefix of one that is written as two hexadecimal digits
void appendEscape(std::uint8_t byte, std::string_view prefix, std::string& out) {
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr std::string_view plain = "\n\r\t\"\\";
    constexpr std::string_view letters = "nrt\"\\";
    out += '\\';
    const std::size_t known = plain.find(static_cast<char>(byte));
    if (known != std::string_view::npos) {
        out += letters[known];
        return;
    }
    out += prefix;
    out += digits[byte >> 4];
    out += digits[byte & 15];
}

}  // namespace

bool isUtf8(std::string_view text) noexcept {
    return utf8Prefix(text) == text.size();
}

std::size_t utf8Prefix(std::string_view text) noexcept {
    constexpr std::uint64_t highBits = 0x8080808080808080ULL;
    std::size_t at = 0;
    while (at < text.size()) {
        if (text.size() - at >= sizeof(std::uint64_t)) {
            std::uint64_t word;
            std::memcpy(&word, text.data() + at, sizeof word);
            if ((word & highBits) == 0) {
                at += sizeof word;
                continue;
            }
        }
        if (byteAt(text, at) < 0x80) {
            ++at;
            continue;
        }
        const std::size_t length = sequenceLength(text, at);
        if (length == 0) return at;
        at += length;
    }
    return at;
}

std::string quoteText(std::string_view text, std::size_t most) {
    std::string out = "\"";
    std::size_t at = 0;
    while (at < text.size()) {
        const std::uint8_t byte = byteAt(text, at);
        const std::size_t length = byte < 0x80 ? 1 : sequenceLength(text, at);
        if (at + (length == 0 ? 1 : length) > most) {
            out += "...";
            break;
        }
        if (length == 0 || byte < 0x20 || byte == 0x7F) {
            appendEscape(byte, "x", out);
            ++at;
            continue;
        }
        if (byte == '"' || byte == '\\') out += '\\';
        out.append(text, at, length);
        at += length;
    }
    out += '"';
    return out;
}

void appendJsonString(std::string_view text, std::string& out) {
    const auto isPlain = [](char c) { return static_cast<std::uint8_t>(c) >= 0x20 && c != '"' && c != '\\'; };
    out += '"';
    for (auto from = text.begin(); from != text.end();) {
        const auto end = std::find_if_not(from, text.end(), isPlain);
        out.append(from, end);
        from = end;
        if (from != text.end()) appendEscape(static_cast<std::uint8_t>(*from++), "u00", out);
    }
    out += '"';
}

void appendBase64(std::string_view bytes, std::string& out) {
    out.reserve(out.size() + (bytes.size() + 2) / 3 * 4);
    std::size_t at = 0;
    for (; bytes.size() - at >= 3; at += 3) {
        const unsigned group =
            static_cast<unsigned>(byteAt(bytes, at) << 16 | byteAt(bytes, at + 1) << 8 | byteAt(bytes, at + 2));
        const char four[] = {base64Alphabet[group >> 18], base64Alphabet[group >> 12 & 63],
                             base64Alphabet[group >> 6 & 63], base64Alphabet[group & 63]};
        out.append(four, sizeof four);
    }
    const std::size_t rest = bytes.size() - at;
    if (rest == 0) return;
    const unsigned first = byteAt(bytes, at);
    const unsigned second = rest == 2 ? byteAt(bytes, at + 1) : 0U;
    out += base64Alphabet[first >> 2];
    out += base64Alphabet[(first & 3) << 4 | second >> 4];
    out += rest == 2 ? base64Alphabet[(second & 15) << 2] : '=';
    out += '=';
}

std::optional<std::string> parseBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    std::string out;
    out.reserve(text.size() / 4 * 3);
    std::uint32_t bits = 0;
    unsigned held = 0;
    for (const char c : text.substr(0, text.size() - padding)) {
        const std::uint8_t six = base64Values[static_cast<unsigned char>(c)];
        if (six == notBase64) return std::nullopt;
        bits = bits << 6 | six;
        held += 6;
        if (held < 8) continue;
        held -= 8;
        out += static_cast<char>(static_cast<unsigned char>(bits >> held & 0xFF));
    }
    // Bits that no byte uses must be zero, so that each value has one text.
    if ((bits & ((1U << held) - 1)) != 0) return std::nullopt;
    return out;
}

std::size_t charactersBefore(std::string_view text, std::size_t offset) noexcept {
    const std::string_view before = text.substr(0, std::min(offset, text.size()));
    return static_cast<std::size_t>(std::count_if(
        before.begin(), before.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

}  // namespace QOR
