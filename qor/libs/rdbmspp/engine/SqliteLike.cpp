#include "rdbmspp/engine/SqliteLike.h"

#include <sqlite3.h>

#include <cstddef>
#include <string_view>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORRequestControl.h"

namespace QOR {

namespace {

// Comparisons of characters that the engine's own function may need: some milliseconds.
constexpr std::size_t shortWork = 4'000'000;
constexpr unsigned worksBetweenLooks = 1 << 20;

constexpr unsigned any = '%';
constexpr unsigned one = '_';

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

/// The next character, as the engine reads it: a byte of at least 0xc0 with all continuations behind it, in which it
/// finds no fault but that of a character that must not be.
unsigned next(std::string_view text, std::size_t& at) {
    static constexpr unsigned char leading[] = {
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f,
        0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e, 0x1f,
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f,
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x00, 0x01, 0x02, 0x03, 0x00, 0x01, 0x00, 0x00,
    };
    unsigned c = static_cast<unsigned char>(text[at++]);
    if (c < 0xc0) return c;
    c = leading[c - 0xc0];
    while (at < text.size() && isContinuation(text[at]))
        c = (c << 6) + (static_cast<unsigned char>(text[at++]) & 0x3f);
    return c < 0x80 || (c & 0xfffff800) == 0xd800 || (c & 0xfffffffe) == 0xfffe ? 0xfffd : c;
}

bool isEqual(unsigned a, unsigned b) {
    return a == b || (a < 0x80 && b < 0x80 && toLowerChar(static_cast<char>(a)) == toLowerChar(static_cast<char>(b)));
}

/// A pattern and a text, compared from left to right. Where a part behind a `%` does not fit, it is tried one character
/// further; an earlier `%` never has to be looked at again.
class Comparison {
public:
    /// \param escape 0 for none; as such it takes the meaning of `%` or `_` from that
    Comparison(std::string_view pattern, std::string_view text, unsigned escape)
        : m_pattern(pattern), m_text(text), m_escape(escape) {}

    enum class Result { Match, Other, Ended };

    Result run() {
        unsigned work = 0;
        while (m_at < m_text.size()) {
            if (++work >= worksBetweenLooks) {
                QORRequestControl* const control = QORRequestControl::current();
                if (control != nullptr && !control->mayGoOn()) return Result::Ended;
                work = 0;
            }
            if (step()) continue;
            if (!m_tried) return Result::Other;
            m_next = m_behindAny;
            static_cast<void>(next(m_text, m_tryAt));
            m_at = m_tryAt;
        }
        while (m_next < m_pattern.size() && isAny(m_pattern[m_next]))
            ++m_next;
        return m_next == m_pattern.size() ? Result::Match : Result::Other;
    }

private:
    bool isAny(char c) const { return c == static_cast<char>(any) && m_escape != any; }

    /// Compares one character. \returns false where it does not fit
    bool step() {
        if (m_next >= m_pattern.size()) return false;
        if (isAny(m_pattern[m_next])) {
            m_tried = true;
            m_behindAny = ++m_next;
            m_tryAt = m_at;
            return true;
        }
        unsigned wanted = next(m_pattern, m_next);
        bool literal = false;
        if (m_escape != 0 && wanted == m_escape) {
            if (m_next >= m_pattern.size()) return m_tried = false;  // nothing escaped: it fits nowhere
            wanted = next(m_pattern, m_next);
            literal = true;
        }
        const unsigned found = next(m_text, m_at);
        return isEqual(wanted, found) || (!literal && wanted == one && m_escape != one);
    }

    const std::string_view m_pattern;
    const std::string_view m_text;
    const unsigned m_escape;
    std::size_t m_next = 0;       // in the pattern
    std::size_t m_at = 0;         // in the text
    bool m_tried = false;         // a % was met
    std::size_t m_behindAny = 0;  // the last one
    std::size_t m_tryAt = 0;      // where what is behind it was tried last
};

std::string_view textOf(sqlite3_value* value) {
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
    return bytes == nullptr ? std::string_view() : std::string_view(bytes);  // the engine stops at a NUL too
}

/// \returns false when an error was told or the answer is null
bool readEscape(sqlite3_context* context, sqlite3_value* value, unsigned& escape) {
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_value_text(value));
    if (bytes == nullptr) return false;
    const std::string_view text(bytes);
    std::size_t at = 0;
    if (!text.empty()) escape = next(text, at);
    if (!text.empty() && at == text.size()) return true;
    sqlite3_result_error(context, "ESCAPE expression must be a single character", -1);
    return false;
}

void like(sqlite3_context* context, int count, sqlite3_value** values) {
    static const bool bytesNeverMatch = sqlite3_compileoption_used("LIKE_DOESNT_MATCH_BLOBS") != 0;
    if (bytesNeverMatch &&
        (sqlite3_value_type(values[0]) == SQLITE_BLOB || sqlite3_value_type(values[1]) == SQLITE_BLOB)) {
        return sqlite3_result_int(context, 0);
    }
    sqlite3* const connection = sqlite3_context_db_handle(context);
    if (sqlite3_value_bytes(values[0]) > sqlite3_limit(connection, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, -1)) {
        return sqlite3_result_error(context, "LIKE or GLOB pattern too complex", -1);
    }
    unsigned escape = 0;
    if (count == 3 && !readEscape(context, values[2], escape)) return;
    const std::string_view pattern = textOf(values[0]);
    const std::string_view text = textOf(values[1]);
    if (pattern.data() == nullptr || text.data() == nullptr) return;
    const bool plain = escape != any && escape != one;
    if (plain && (pattern.size() + 1) * (text.size() + 1) <= shortWork) {
        return sqlite3_result_int(context, sqlite3_strlike(pattern.data(), text.data(), escape) == 0);
    }
    switch (Comparison(pattern, text, escape).run()) {
        case Comparison::Result::Match:
            return sqlite3_result_int(context, 1);
        case Comparison::Result::Other:
            return sqlite3_result_int(context, 0);
        case Comparison::Result::Ended:
            return sqlite3_result_error_code(context, SQLITE_INTERRUPT);
    }
}

}  // namespace

void replaceSqliteLike(sqlite3& connection) noexcept {
    constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    for (const int arguments : {2, 3})
        sqlite3_create_function(&connection, "like", arguments, flags, nullptr, &like, nullptr, nullptr);
}

}  // namespace QOR
