/// \file
/// What the constants of a filter mean to the sources that take them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "QORLibAgent/QORLogs.h"
#include "QORPager/QORExpressionToken.h"
#include "QORPager/QORSources.h"

namespace QOR {

class TExpressionEvaluation;

/// Which records of a log a filter asks for.
struct QORLogSpan {
    QOREnvSelection envs;
    int from;  ///< seconds since the epoch, both bounds included
    int to;
};

/// The filter of one request, or none, from which a source takes constants.
class QORFilterConstants {
public:
    /// \param filter compiled; null when the request has no filter, and then there are no constants
    explicit QORFilterConstants(TExpressionEvaluation* filter) noexcept : m_filter(filter) {}

    /// The constant that the filter compares the name with under the operator.
    std::optional<std::string> find(std::string_view name, TTokenType type) const;
    std::optional<std::string> find(const QORSourceConstant& constant) const {
        return find(constant.name, constant.operation);
    }
    /// Environments by the constant that the name equals: all without one, and for the nil GUID; none when it is no
    /// identifier.
    QOREnvSelection environments(std::string_view name) const;
    /// A bound of the time of a log; `absent` without one.
    int timeBound(std::string_view name, TTokenType type, int absent) const;
    /// What a log takes: all records of all times where the filter does not say.
    QORLogSpan span(const QORSource& log) const;

private:
    TExpressionEvaluation* m_filter;
};

/// The number that a text begins with, as the C library's atoi reads it, but saturating at 32 bits; 0 for none.
std::int32_t readSaturated(std::string_view text) noexcept;

/// A time given as seconds (saturating at 32 bits) or as a text for parseTime; empty when it is neither.
std::optional<std::int32_t> readSeconds(std::string_view text);

}  // namespace QOR
