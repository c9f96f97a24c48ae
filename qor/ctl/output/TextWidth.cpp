#include "output/TextWidth.h"

#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <array>
#include <cstdint>
#include <cstdlib>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

constexpr std::size_t defaultTerminalWidth = 80;
constexpr std::string_view ellipsis = "\xE2\x80\xA6";

/// One character of a text: its bytes, its code point (-1 for a byte that is not UTF-8) and its columns.
struct Character {
    std::size_t bytes;
    std::int32_t code;
    std::size_t width;
};

/// Makes wcwidth know all of Unicode on this thread, whatever the locale of the process is.
class UnicodeScope {
public:
    UnicodeScope() : m_before(uselocale(unicode())) {}
    UnicodeScope(const UnicodeScope&) = delete;
    UnicodeScope& operator=(const UnicodeScope&) = delete;
    ~UnicodeScope() { uselocale(m_before); }

private:
    static locale_t unicode() {
        static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return locale;  // null, and so no change, where the system lacks it: each character then counts 1
    }
    locale_t m_before;
};

std::size_t sequenceLength(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead < 0xE0) return 2;
    return lead < 0xF0 ? 3 : 4;
}

std::int32_t decode(std::string_view sequence) {
    const auto lead = static_cast<unsigned char>(sequence[0]);
    constexpr std::array<unsigned, 5> masks{0, 0x7F, 0x1F, 0x0F, 0x07};
    std::uint32_t code = lead & masks[sequence.size()];
    for (const char c : sequence.substr(1))
        code = code << 6U | (static_cast<unsigned char>(c) & 0x3FU);
    return static_cast<std::int32_t>(code);
}

Character characterAt(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) return {1, lead, 1};
    const std::string_view sequence = text.substr(at, sequenceLength(lead));
    if (!isUtf8(sequence)) return {1, -1, 1};
    const std::int32_t code = decode(sequence);
    const int width = wcwidth(static_cast<wchar_t>(code));
    return {sequence.size(), code, width < 0 ? 1 : static_cast<std::size_t>(width)};
}

bool isPlainAscii(std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7F) return false;
    }
    return true;
}

/// Characters that steer a terminal or the direction of writing, and such as nobody sees.
bool isHidden(std::int32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0xAD || code == 0x61C || code == 0xFEFF ||
           (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2060 && code <= 0x206F) || (code >= 0xE0000 && code <= 0xE007F);
}

void appendHex(std::uint32_t value, std::size_t leastDigits, std::string& out) {
    std::string digits;
    for (; value != 0 || digits.size() < leastDigits; value >>= 4U)
        digits.insert(0, 1, "0123456789abcdef"[value & 15U]);
    out += digits;
}

void appendEscaped(std::int32_t code, unsigned char byte, std::string& out) {
    if (code == '\n') {
        out += "\\n";
    } else if (code == '\r') {
        out += "\\r";
    } else if (code == '\t') {
        out += "\\t";
    } else if (code < 0x80) {
        out += "\\x";
        appendHex(byte, 2, out);
    } else {
        out += "\\u{";
        appendHex(static_cast<std::uint32_t>(code), 2, out);
        out += '}';
    }
}

}  // namespace

std::size_t textWidth(std::string_view text) {
    if (isPlainAscii(text)) return text.size();
    const UnicodeScope scope;
    std::size_t width = 0;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        width += character.width;
        at += character.bytes;
    }
    return width;
}

void appendVisible(std::string_view text, std::string& out) {
    if (isPlainAscii(text)) {
        out += text;
        return;
    }
    const UnicodeScope scope;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        if (character.code < 0 || isHidden(character.code))
            appendEscaped(character.code, static_cast<unsigned char>(text[at]), out);
        else
            out.append(text, at, character.bytes);
        at += character.bytes;
    }
}

std::string sliceByWidth(std::string_view text, std::size_t from, std::size_t width) {
    const UnicodeScope scope;
    std::string slice;
    std::size_t column = 0;
    for (std::size_t at = 0; at < text.size();) {
        const Character character = characterAt(text, at);
        if (column + character.width > from + width) break;
        if (column >= from) slice.append(text, at, character.bytes);
        column += character.width;
        at += character.bytes;
    }
    return slice;
}

std::string cutToWidth(std::string_view text, std::size_t width) {
    if (textWidth(text) <= width) return std::string(text);
    return sliceByWidth(text, 0, width - 1) + std::string(ellipsis);
}

std::size_t terminalWidth(int descriptor) {
    if (isatty(descriptor) == 0) return 0;
    if (const char* const columns = std::getenv("COLUMNS"))
        if (const auto width = parseInt32(columns); width && *width > 0) return static_cast<std::size_t>(*width);
    winsize size{};
    if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return defaultTerminalWidth;
}

}  // namespace QOR
