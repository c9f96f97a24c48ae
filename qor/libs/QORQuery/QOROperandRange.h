/// \file
/// Which values an operand of a condition can have, as far as that holds on every engine and for whatever is stored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace QOR {

/// A literal as the value that it is compared as.
class QORComparedValue {
public:
    enum class Order : std::uint8_t {
        Less,
        Equal,
        Greater,
        Different,  ///< which comes first depends on the engine's order
        Unknown
    };

    /// \param type of the column beside it, as declared; empty: not known \param converted whether the comparison reads
    /// the literal as a value of that type, rather than as it is spelled \returns nothing where nobody can tell what it
    /// is compared as
    static std::optional<QORComparedValue> of(std::string_view type, const std::string& literal, bool converted);
    /// Beside another literal, or the result of upper() or lower().
    static QORComparedValue text(std::string literal) { return QORComparedValue(std::move(literal), false); }

    Order compare(const QORComparedValue& other) const;
    /// Whether it holds a letter of ASCII in upper (lower) case.
    bool hasUpper() const noexcept;
    bool hasLower() const noexcept;

private:
    explicit QORComparedValue(std::int64_t number) : m_value(number) {}
    explicit QORComparedValue(double number) : m_value(number) {}
    QORComparedValue(std::string text, bool ordered) : m_value(std::move(text)), m_ordered(ordered) {}

    std::variant<std::int64_t, double, std::string> m_value;
    bool m_ordered = true;  ///< of a text: every engine sorts it by its bytes, and tells it from any other
};

/// What a conjunction says of one operand: each call is one thing that has to hold of it. Of a great many things some
/// are forgotten, so that looking through them takes no time. A value.
class QOROperandRange {
public:
    static constexpr std::size_t longestChoice = 200;

    void beNull() { m_null = true; }
    void beSomething() { m_something = true; }
    void beAbove(QORComparedValue bound, bool included) { remember(m_lower, mostBounds, {std::move(bound), included}); }
    void beBelow(QORComparedValue bound, bool included) { remember(m_upper, mostBounds, {std::move(bound), included}); }
    /// \pre at most longestChoice
    void beOneOf(std::vector<QORComparedValue> values) { remember(m_choices, mostChoices, std::move(values)); }
    void differFrom(QORComparedValue value) { remember(m_excluded, longestChoice, std::move(value)); }

    /// True only where no value, and null neither, does.
    bool isEmpty() const;

private:
    struct Bound {
        QORComparedValue value;
        bool included;
    };
    static constexpr std::size_t mostBounds = 64;
    static constexpr std::size_t mostChoices = 8;

    template <class Thing>
    static void remember(std::vector<Thing>& things, std::size_t most, Thing thing) {
        if (things.size() < most) things.push_back(std::move(thing));
    }
    bool isPossible(const QORComparedValue& value) const;

    bool m_null = false;
    bool m_something = false;
    std::vector<Bound> m_lower;
    std::vector<Bound> m_upper;
    std::vector<std::vector<QORComparedValue>> m_choices;
    std::vector<QORComparedValue> m_excluded;
};

}  // namespace QOR
