#include "QORLibAgent/QORPageToken.h"

#include <algorithm>
#include <array>
#include <limits>
#include <mutex>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORNoDestructor.h"
#include "QORCommon/QORSeal.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORLibAgent/QORHostTables.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

constexpr std::size_t secretDigits = 64;
/// 128 bits tell questions apart.
constexpr std::size_t digestDigits = 32;
/// What a token begins with: another form of tokens would begin with another letter, and so does whatever
/// else is sealed with the key.
constexpr char form = 'p';

[[noreturn]] void refuse() {
    throw QORException(errBadRequest, "the page token is not one of this database's", QOR_SOURCE_PATH);
}

/// Empty where there is none for this process.
std::string readKey() {
    QORRdbmsTran tran(ASAccess::Read);
    std::string key;
    if (hasColumns(*tran, "qor_secret", "'purpose', 'secret'", 2)) {
        ASStatement& select = tran->prepare("SELECT secret FROM qor_secret WHERE purpose = 'pages'");
        select.execute();
        if (select.fetch()) key = select.text(1);
        select.close();
    }
    return key.size() == secretDigits ? key : std::string();
}

/// The key of the database that the process serves.
class Key {
public:
    std::string get() {
        static const std::string ownKey = hexOf(randomBytes(secretDigits / 2));
        std::string key = shared();
        return key.empty() ? ownKey : key;
    }
    /// Empty where the database has none for this process.
    std::string shared() {
        const std::uint64_t generation = QORRdbms::instance().generation();
        {
            const std::lock_guard lock(m_mutex);
            if (m_isRead && m_generation == generation) return m_key;
        }
        std::string key = readKey();
        const std::lock_guard lock(m_mutex);
        m_isRead = true;
        m_generation = generation;
        m_key = key;
        return key;
    }

private:
    std::mutex m_mutex;
    bool m_isRead = false;
    std::uint64_t m_generation = 0;
    std::string m_key;
};

Key& theKey() {
    static QORNoDestructor<Key> key;
    return *key;
}

/// Numbers are written in groups of seven bits, the lowest first; texts with their length before them.
class Packer {
public:
    void number(std::uint64_t value) {
        for (; value >= 128; value >>= 7U)
            m_bytes += static_cast<char>(value % 128 + 128);
        m_bytes += static_cast<char>(value);
    }
    /// Small ones are short, whatever their sign.
    void signedNumber(std::int64_t value) {
        const auto bits = static_cast<std::uint64_t>(value);
        number(value < 0 ? ~(bits << 1U) : bits << 1U);
    }
    void text(std::string_view value) {
        number(value.size());
        m_bytes += value;
    }
    /// As long as any other.
    void fixedNumber(std::uint64_t value) {
        for (unsigned i = 0; i < 8; ++i, value >>= 8U)
            letter(static_cast<char>(value & 255U));
    }
    void letter(char value) { m_bytes += value; }
    const std::string& bytes() const noexcept { return m_bytes; }

private:
    std::string m_bytes;
};

/// What does not fit is refused.
class Unpacker {
public:
    explicit Unpacker(std::string_view bytes) : m_left(bytes) {}
    std::uint64_t number() {
        std::uint64_t value = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const auto byte = static_cast<unsigned char>(letter());
            value |= static_cast<std::uint64_t>(byte % 128) << shift;
            if (byte < 128) return value;
        }
        refuse();
    }
    std::uint64_t fixedNumber() {
        std::uint64_t value = 0;
        for (unsigned shift = 0; shift < 64; shift += 8)
            value |= std::uint64_t{static_cast<unsigned char>(letter())} << shift;
        return value;
    }
    std::int64_t signedNumber() {
        const std::uint64_t value = number();
        return static_cast<std::int64_t>(value % 2 != 0 ? ~(value >> 1U) : value >> 1U);
    }
    std::string text() {
        const std::uint64_t size = number();
        if (size > m_left.size()) refuse();
        std::string value(m_left.substr(0, size));
        m_left.remove_prefix(size);
        return value;
    }
    char letter() {
        if (m_left.empty()) refuse();
        const char value = m_left.front();
        m_left.remove_prefix(1);
        return value;
    }
    bool atEnd() const noexcept { return m_left.empty(); }

private:
    std::string_view m_left;
};

std::string packed(const QORPageToken& token) {
    Packer packer;
    packer.letter(form);
    packer.text(token.question);
    packer.signedNumber(token.now);
    packer.fixedNumber(token.change);
    packer.signedNumber(token.offset);
    packer.signedNumber(token.records);
    for (const std::optional<std::string>& value : token.key) {
        packer.letter(value ? 'v' : 'n');
        if (value) packer.text(*value);
    }
    return packer.bytes();
}

QORPageToken unpacked(std::string_view bytes) {
    Unpacker unpacker(bytes);
    if (unpacker.letter() != form) refuse();
    QORPageToken token;
    token.question = unpacker.text();
    token.now = unpacker.signedNumber();
    token.change = unpacker.fixedNumber();
    token.offset = unpacker.signedNumber();
    token.records = unpacker.signedNumber();
    while (!unpacker.atEnd()) {
        if (unpacker.letter() == 'v') {
            token.key.emplace_back(unpacker.text());
        } else {
            token.key.emplace_back(std::nullopt);
        }
    }
    return token;
}

std::string urlText(std::string_view bytes) {
    std::string text;
    appendBase64(bytes, text);
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    text.resize(std::min(text.find('='), text.size()));
    return text;
}

/// The bytes of a text that urlText() makes; another spelling of them is none.
std::string urlBytes(std::string_view text) {
    std::string padded(text);
    std::replace(padded.begin(), padded.end(), '-', '+');
    std::replace(padded.begin(), padded.end(), '_', '/');
    padded.append((4 - padded.size() % 4) % 4, '=');
    std::optional<std::string> bytes = parseBase64(padded);
    if (!bytes || urlText(*bytes) != text) refuse();
    return std::move(*bytes);
}

/// How many rows, from where on, when, and how they are counted.
bool differsFromPageToPage(QORTag tag) noexcept {
    constexpr std::array<QORTag, 7> such{tag::limit,      tag::after, tag::count,  tag::deadline,
                                         tag::statistics, tag::now,   tag::explain};
    return std::find(such.begin(), such.end(), tag) != such.end();
}

/// Of elements with all that is in them. A few pieces cost less than many, and none has to hold the whole.
class ElementDigest {
public:
    /// How deep it goes is bounded by messages, which have a greatest depth.
    void add(QORBinaryIterator element, bool isSelect) {
        std::string_view value;
        // An element that only this message has a number for is known by its name.
        const bool isKnown = element.curID() < tag::firstOfMessage;
        m_piece.number(isKnown ? element.curID() : 0);
        m_piece.text(isKnown ? std::string_view() : element.curName());
        m_piece.number(element.getView(value) == 0 ? 1 : 0);
        m_piece.text(value);
        if (m_piece.bytes().size() > largestPiece) flush();
        for (int failed = element.firstChild(); failed == 0; failed = element.nextSibling()) {
            if (!isSelect || !differsFromPageToPage(element.curID())) add(element, false);
        }
        m_piece.letter('\0');
    }
    std::string hex() {
        flush();
        return m_digest.hex();
    }

private:
    static constexpr std::size_t largestPiece = std::size_t{16} << 10;

    void flush() {
        m_digest.add(m_piece.bytes());
        m_piece = {};
    }

    QORDigest m_digest;
    Packer m_piece;
};

}  // namespace

std::string sealPageToken(const QORPageToken& token) {
    return urlText(sealBytes(theKey().get(), packed(token)));
}

QORPageToken openPageToken(std::string_view text) {
    const std::optional<std::string> bytes = openBytes(theKey().get(), urlBytes(text));
    if (!bytes) refuse();
    return unpacked(*bytes);
}

std::string sharedSecretFor(std::string_view purpose) {
    return hexOf(keyedDigest(theKey().get(), purpose));
}

std::string databaseMark() {
    constexpr std::size_t markDigits = 16;
    const std::string key = theKey().shared();
    return key.empty() ? key : hexOf(keyedDigest(key, "database")).substr(0, markDigits);
}

void preparePageTokens() {
    static_cast<void>(theKey().get());
}

std::string questionDigest(const QORBinaryIterator& select) {
    ElementDigest digest;
    digest.add(select, true);
    return digest.hex().substr(0, digestDigits);
}

}  // namespace QOR
