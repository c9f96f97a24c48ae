/// \file
/// Parameters of requests: what a route takes, and what a request gives.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "host/QORPlainNumber.h"

namespace QOR {

/// One that a route takes. The same tables check requests and describe the routes. Of static storage.
struct AgentParameter {
    enum class Kind : std::uint8_t {
        Text,
        List,    ///< texts with commas between them
        Number,  ///< a whole one without sign
        Flag,    ///< true, false, or the name alone for true
        Choice,  ///< one of some words
    };
    std::string_view name;
    Kind kind = Kind::Text;
    std::string_view meaning{};
    QORNumberRange range{};                       ///< of a number
    std::span<const std::string_view> choices{};  ///< of a choice
    std::string_view fallback{};                  ///< what holds without it; empty: nothing does
    bool required = false;
    std::string_view advice{};  ///< what helps who gives a value that is not taken
};

/// Those that one request gives, read and checked. Names and values are percent-decoded strictly, where '+' stands for
/// a blank as forms write it; they are UTF-8 without NUL.
class AgentParameters {
public:
    AgentParameters() = default;
    /// Of the part of a target behind '?'. \param known what the route takes
    /// \throws AgentProblemException 400 naming the parameter that is unknown, given twice, missing or not well formed
    static AgentParameters ofQuery(std::string_view query, std::span<const AgentParameter> known);
    /// Of a body, an object of JSON whose members are named as the parameters are. A list is an array of texts, or a
    /// text as in a query; null is as good as absent. \throws AgentProblemException as ofQuery
    static AgentParameters ofBody(std::string_view json, std::span<const AgentParameter> known);

    /// Takes over what others say of one, if they do.
    void take(const AgentParameters& others, std::string_view name) {
        if (others.has(name)) m_values.insert_or_assign(std::string(name), std::string(others.text(name)));
    }

    bool has(std::string_view name) const { return m_values.find(name) != m_values.end(); }
    /// As it was given; empty when it was not.
    std::string_view text(std::string_view name) const;
    /// \pre a number that was checked as one
    std::optional<std::uint64_t> number(std::string_view name) const;
    bool flag(std::string_view name) const { return has(name) && text(name) != "false"; }
    /// All of them as one text, another one for others.
    std::string asText() const;

private:
    void add(const AgentParameter& parameter, std::string value);
    void requireAll(std::span<const AgentParameter> known) const;

    std::map<std::string, std::string, std::less<>> m_values;
};

/// The text that percent-escapes stand for. \param what it is of, for the problem's `parameter`
/// \throws AgentProblemException 400 for what is no escape, no UTF-8, or holds NUL
std::string percentDecoded(std::string_view text, std::string_view what, bool plusIsBlank);

}  // namespace QOR
