/// \file
/// Selects without this program: prepared and bound once, through the driver and through the engine's own library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace QOR::bench {

/// What a statement is given: a whole number or a text.
struct Given {
    bool isNumber = false;
    std::int64_t number = 0;
    std::string text;

    Given(std::int64_t value) : isNumber(true), number(value) {}  // NOLINT(google-explicit-constructor)
    Given(std::string value) : text(std::move(value)) {}          // NOLINT(google-explicit-constructor)
};

/// Rows as texts.
using Rows = std::vector<std::vector<std::string>>;

/// One connection and one statement. Failures are std::logic_error. One thread.
class ByHand {
public:
    virtual ~ByHand() = default;
    /// Runs it and has every row in the program's memory. \returns how many there were
    virtual std::int64_t run(const std::vector<Given>& given) = 0;
    /// The same, for a look at them.
    virtual Rows rows(const std::vector<Given>& given) = 0;
};

/// Through the driver, columns bound as texts into buffers that hold them.
/// \param connection its string \param sql with `?` \param given as many as it will be given, of the same kinds
std::unique_ptr<ByHand> driverByHand(const std::string& connection, const std::string& sql,
                                     const std::vector<Given>& given, std::size_t columns);

/// Through the engine's own library. \param sql with `$1`, `$2`, ...
std::unique_ptr<ByHand> libraryByHand(const std::string& conninfo, const std::string& sql);

/// `$1` and so on of the engine as the driver's `?`.
std::string withMarks(const std::string& sql);

}  // namespace QOR::bench
