#include "rdbmspp/engine/SqliteDecimal.h"

#include <sqlite3.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace QOR {
namespace {

__extension__ using Wide = __int128;

/// Whole numbers by the power of ten that they are multiplied by. A value adds at most 2^63 to one of them, so that
/// none overflows.
class DecimalSum {
public:
    void add(std::int64_t value) { addTo(0, value); }
    void add(double value) {
        if (!std::isfinite(value)) {
            m_beyond += value;
            m_finite = false;
            return;
        }
        char text[32];
        const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
        addText({text, static_cast<std::size_t>(end - text)});
    }
    void count() { ++m_count; }

    std::int64_t values() const { return m_count; }
    bool isFinite() const { return m_finite; }
    /// What it is when it is not finite.
    double beyond() const { return m_beyond; }
    /// Its digits, with a point where it is no whole number.
    std::string text() const;

private:
    void addTo(int exponent, Wide value) {
        if (m_last == nullptr || m_lastExponent != exponent) {
            m_last = &m_sums[exponent];
            m_lastExponent = exponent;
        }
        *m_last += value;
    }
    /// "-1.25e-07"
    void addText(std::string_view text) {
        const std::size_t mark = text.find('e');
        const std::string_view power = text.substr(mark + (text[mark + 1] == '+' ? 2 : 1));
        int exponent = 0;
        std::from_chars(power.data(), power.data() + power.size(), exponent);
        std::int64_t digits = 0;
        bool fraction = false;
        for (const char c : text.substr(0, mark)) {
            if (c == '.') fraction = true;
            if (c < '0' || c > '9') continue;
            digits = digits * 10 + (c - '0');
            if (fraction) --exponent;
        }
        addTo(exponent, text.front() == '-' ? -digits : digits);
    }

    std::map<int, Wide> m_sums;
    Wide* m_last = nullptr;  ///< of the value before, whose exponent is most values'
    int m_lastExponent = 0;
    std::int64_t m_count = 0;
    double m_beyond = 0;
    bool m_finite = true;
};

/// Digits of a number that is negative as a whole or not at all, the lowest first.
std::string digitsOf(const std::map<int, Wide>& sums, bool& negative) {
    // Each sum is added at its place; a place may hold what belongs to those above, and may be negative.
    const int lowest = sums.begin()->first;
    std::string digits;
    Wide carry = 0;
    auto next = sums.begin();
    for (int exponent = lowest; next != sums.end() || carry != 0; ++exponent) {
        if (next != sums.end() && next->first == exponent) carry += (next++)->second;
        const int digit = static_cast<int>(((carry % 10) + 10) % 10);
        carry = (carry - digit) / 10;
        digits += static_cast<char>('0' + digit);
        if (next == sums.end() && carry == -1) break;  // nothing but nines would follow, for ever
    }
    negative = carry == -1;
    if (!negative) return digits;
    // The tens' complement of what is below zero.
    int borrow = 1;
    for (char& digit : digits) {
        const int turned = 9 - (digit - '0') + borrow;
        borrow = turned / 10;
        digit = static_cast<char>('0' + turned % 10);
    }
    if (borrow != 0) digits += '1';
    return digits;
}

std::string DecimalSum::text() const {
    if (m_sums.empty()) return "0";
    bool negative = false;
    std::string digits = digitsOf(m_sums, negative);
    int exponent = m_sums.begin()->first;
    if (exponent > 0) {
        digits.insert(0, static_cast<std::size_t>(exponent), '0');
        exponent = 0;
    }
    const auto fraction = static_cast<std::size_t>(-exponent);
    if (digits.size() <= fraction) digits.append(fraction + 1 - digits.size(), '0');
    while (digits.size() > fraction + 1 && digits.back() == '0')
        digits.pop_back();
    std::size_t zeros = 0;
    while (zeros < fraction && digits[zeros] == '0')
        ++zeros;
    std::string text = negative ? "-" : "";
    text.append(digits.rbegin(), digits.rend() - static_cast<std::ptrdiff_t>(fraction));
    if (zeros == fraction) return text == "-0" ? "0" : text;
    text += '.';
    return text.append(digits.rend() - static_cast<std::ptrdiff_t>(fraction),
                       digits.rend() - static_cast<std::ptrdiff_t>(zeros));
}

/// Digits between the first and the last that is not zero.
std::size_t significant(std::string_view text) {
    std::size_t count = 0;
    std::size_t zeros = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') continue;
        if (c == '0') {
            if (count > 0) ++zeros;
            continue;
        }
        count += zeros + 1;
        zeros = 0;
    }
    return count;
}

/// What the engine keeps for an aggregate, in memory that it has cleared.
struct Kept {
    DecimalSum* sum;
};

Kept* keptOf(sqlite3_context* context, int size) {
    return static_cast<Kept*>(sqlite3_aggregate_context(context, size));
}

void step(sqlite3_context* context, int, sqlite3_value** values) {
    if (sqlite3_value_type(values[0]) == SQLITE_NULL) return;
    Kept* const kept = keptOf(context, sizeof(Kept));
    try {
        if (kept == nullptr) throw std::bad_alloc();
        if (kept->sum == nullptr) kept->sum = std::make_unique<DecimalSum>().release();
        kept->sum->count();
        if (sqlite3_value_numeric_type(values[0]) == SQLITE_INTEGER) {
            kept->sum->add(static_cast<std::int64_t>(sqlite3_value_int64(values[0])));
        } else {
            kept->sum->add(sqlite3_value_double(values[0]));
        }
    } catch (const std::bad_alloc&) {
        sqlite3_result_error_nomem(context);
    }
}

enum class Result { Sum, Average };

void tell(sqlite3_context* context, const DecimalSum& sum, Result wanted) {
    if (!sum.isFinite()) return sqlite3_result_double(context, sum.beyond());
    std::string text = sum.text();
    if (wanted == Result::Sum) {
        constexpr std::size_t digitsOfADouble = 15;
        if (significant(text) > digitsOfADouble) text += '=';
        return sqlite3_result_text(context, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
    double value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    sqlite3_result_double(context, value / static_cast<double>(sum.values()));
}

template <Result wanted>
void finish(sqlite3_context* context) {
    Kept* const kept = keptOf(context, 0);
    if (kept == nullptr || kept->sum == nullptr) return;
    const std::unique_ptr<DecimalSum> owned(std::exchange(kept->sum, nullptr));
    try {
        tell(context, *owned, wanted);
    } catch (const std::bad_alloc&) {
        sqlite3_result_error_nomem(context);
    }
}

}  // namespace

void addSqliteDecimal(sqlite3& connection) noexcept {
    constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    sqlite3_create_function(&connection, "qor_decimal_sum", 1, flags, nullptr, nullptr, &step, &finish<Result::Sum>);
    sqlite3_create_function(&connection, "qor_decimal_average", 1, flags, nullptr, nullptr, &step,
                            &finish<Result::Average>);
}

}  // namespace QOR
