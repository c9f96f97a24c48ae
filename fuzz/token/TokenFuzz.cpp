// Page tokens; the first byte decides.
//
//   t   what follows is a token as a client sends it: it was made by nobody here, and is refused as that
//   m   what follows makes a token: it comes back as it was, and with a character changed, cut or added it is refused
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORException.h"
#include "QORLibAgent/QORPageToken.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace {

using namespace QOR;

void require(bool holds, const char* what) {
    if (holds) return;
    static_cast<void>(std::fprintf(stderr, "%s\n", what));
    std::abort();
}

/// An empty database, which keeps no key: that of this process is taken.
void openDatabase() {
    static const bool done = [] {
        QORRdbms::instance().configure({.connectionString = "Driver=SQLite3;Database=:memory:"});
        preparePageTokens();
        return true;
    }();
    static_cast<void>(done);
}

bool isTaken(const std::string& text) {
    try {
        openPageToken(text);
        return true;
    } catch (const QORException& exception) {
        require(exception.code() == 400, "it was refused otherwise than as 400");
        require(exception.message() == "the page token is not one of this database's", "it was refused in other words");
        return false;
    }
}

/// Bytes that are taken from the front, zeros behind their end.
class Bytes {
public:
    explicit Bytes(std::string_view left) : m_left(left) {}
    unsigned char byte() {
        if (m_left.empty()) return 0;
        const auto first = static_cast<unsigned char>(m_left.front());
        m_left.remove_prefix(1);
        return first;
    }
    std::uint64_t number() {
        std::uint64_t value = 0;
        for (unsigned i = 0; i < 8; ++i)
            value = value << 8U | byte();
        return value;
    }
    std::string text() {
        const std::size_t asked = byte();
        const std::size_t length = std::min(asked, m_left.size());
        std::string value(m_left.substr(0, length));
        m_left.remove_prefix(length);
        return value;
    }
    bool empty() const noexcept { return m_left.empty(); }

private:
    std::string_view m_left;
};

QORPageToken tokenOf(Bytes& bytes) {
    QORPageToken token;
    token.question = bytes.text();
    token.now = static_cast<std::int64_t>(bytes.number());
    token.change = bytes.number();
    token.offset = static_cast<std::int64_t>(bytes.number());
    token.records = static_cast<std::int64_t>(bytes.number());
    for (unsigned left = bytes.byte() % 5; left > 0; --left)
        token.key.push_back(bytes.byte() % 4 == 0 ? std::nullopt : std::optional(bytes.text()));
    return token;
}

/// Characters that a token has, and one that it has not.
constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_=";

void spoil(std::string& text, Bytes& bytes) {
    const std::size_t at = (std::size_t{bytes.byte()} << 8U | bytes.byte()) % text.size();
    const char letter = letters[bytes.byte() % letters.size()];
    switch (bytes.byte() % 3) {
        case 0:
            text[at] = text[at] == letter ? (letter == 'A' ? 'B' : 'A') : letter;
            break;
        case 1:
            text.erase(at, 1);
            break;
        default:
            text.insert(at, 1, letter);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    openDatabase();
    Bytes bytes(std::string_view(reinterpret_cast<const char*>(data), size));
    if (bytes.byte() == 't') {
        require(!isTaken(std::string(reinterpret_cast<const char*>(data) + 1, size - 1)), "nobody's token is taken");
        return 0;
    }
    const QORPageToken token = tokenOf(bytes);
    std::string text = sealPageToken(token);
    require(openPageToken(text) == token, "a token comes back as another one");
    const std::string whole = text;
    spoil(text, bytes);
    require(text == whole || !isTaken(text), "a spoilt token is taken");
    return 0;
}
