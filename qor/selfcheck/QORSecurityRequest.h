/// \file
/// A made-up request, and what its makers have in common.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

struct QORSecurityRequest {
    const char* operatorName = "";
    std::string body;                 ///< the select element in message notation
    std::vector<const char*> shapes;  ///< what it has: "nested", "aggregate", ...
    /// How two answers to it are the same.
    enum class Order {
        Any,      ///< the same rows in any order
        Settled,  ///< the order of its rows is settled by what it asks
        Exact,    ///< the same text
    } order = Order::Any;
};

/// `["name", child, ...]` of elements that are already written.
std::string noteElement(std::string_view name, std::string_view children);
/// `["name", "value"]`.
std::string noteLeaf(std::string_view name, std::string_view value);

/// The dice of a maker: the same from the same seed.
class QORSecurityDice {
public:
    explicit QORSecurityDice(std::uint64_t seed) : m_random(seed) {}

    std::uint64_t number(std::uint64_t below) { return m_random() % below; }
    bool chance(unsigned percent) { return number(100) < percent; }
    template <class Container>
    const auto& pick(const Container& from) {
        return from[number(std::size(from))];
    }

private:
    std::mt19937_64 m_random;
};

/// Adds a shape once.
void noteShape(QORSecurityRequest& request, const char* shape);

}  // namespace QOR
