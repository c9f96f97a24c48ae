/// \file
/// The enumerations that fields, rows and filter values share. The numbers are contract: never renumber.
#pragma once

#include <span>
#include <string_view>

namespace QOR {

/// How a text is to be read: the type of a field and of a value in a filter.
enum class TValueType : int {
    Empty = 0,      ///< no value; values of filters only
    Invalid = 1,    ///< the result of an operation that a type does not support; values of filters only
    Boolean = 2,    ///< "1" or "0", for some fields also "true"
    Integer = 3,    ///< a decimal integer of 32 bits
    String = 4,     ///< any bytes
    Date = 5,       ///< a date text; cannot be sorted by
    IPAddress = 6,  ///< dotted IPv4
    Time = 7,       ///< the host's time text (time2str)
};

/// Where the rows of a field come from. Single bits, so that a set of sources is a mask.
enum class TCursorType : int {
    Env = 1,       ///< environments of the host's cache
    OpLog = 2,     ///< records of the operation log
    EventLog = 4,  ///< records of the event log
    Info = 16,     ///< parameters of an info document attached to the row
};

/// How many values one row holds for a field.
enum class FieldStructType : int {
    Single = 0,
    Multi = 1,  ///< an ordered list, read by index
};

/// The value type for a type word of the configuration: "string", "int", "ipaddress", "date", "time", "boolean" or
/// the empty word (String). Case-sensitive; any other word is String.
TValueType typeFromString(std::string_view word) noexcept;

/// The words, the one that any other word is read as first.
std::span<const std::string_view> typeWords() noexcept;

/// The word of the configuration for a type of fields; "" for the types that no field has.
std::string_view typeToString(TValueType type) noexcept;

}  // namespace QOR
