#include "ingest/collectors/EscapedPath.h"

#include <algorithm>
#include <cstddef>

namespace QOR {
namespace {

bool isOctal(char ch) {
    return ch >= '0' && ch <= '7';
}

}  // namespace

std::string escapePath(std::string_view path) {
    std::string escaped;
    for (const char ch : path) {
        const auto byte = static_cast<unsigned char>(ch);
        if (byte > ' ' && byte < 127 && ch != '\\') {
            escaped += ch;
            continue;
        }
        escaped += '\\';
        for (const unsigned shift : {6U, 3U, 0U})
            escaped += static_cast<char>('0' + ((byte >> shift) & 7U));
    }
    return escaped;
}

std::string unescapePath(std::string_view escaped) {
    std::string path;
    for (std::size_t at = 0; at < escaped.size(); ++at) {
        const std::string_view digits = escaped.substr(at + 1, 3);
        const bool isEscape = escaped[at] == '\\' && digits.size() == 3 && digits[0] <= '3' &&
                              std::all_of(digits.begin(), digits.end(), isOctal);
        if (!isEscape) {
            path += escaped[at];
            continue;
        }
        path += static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + (digits[2] - '0'));
        at += 3;
    }
    return path;
}

std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

std::vector<std::string_view> wordsOf(std::string_view line) {
    std::vector<std::string_view> words;
    while (!line.empty()) {
        const std::size_t blank = line.find(' ');
        words.push_back(line.substr(0, blank));
        line.remove_prefix(blank == std::string_view::npos ? line.size() : blank + 1);
    }
    return words;
}

}  // namespace QOR
