/// \file
/// 128-bit identifiers. Plain values: copy them freely, share nothing.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// A GUID. The default value is the nil GUID, which is the invalid value.
/// Text form: lower case, hyphenated, 36 characters. Order: by bytes, which is the order of the texts.
class QOR_API QORGUIDBase {
public:
    QORGUIDBase() = default;

    /// Reads the hyphenated form, upper or lower case, with or without one pair of braces around it.
    static std::optional<QORGUIDBase> parse(std::string_view text) noexcept;
    /// A random (version 4) GUID from the system's generator.
    static QORGUIDBase random();
    /// A name-based (version 5 layout) GUID: the same name in the same namespace gives the same GUID.
    static QORGUIDBase fromName(const QORGUIDBase& space, std::string_view name);

    /// Takes the value of the text and returns true; leaves the nil GUID and returns false when it is not one.
    bool fromString(std::string_view text) noexcept;
    std::string toString() const;
    /// Writes the 36 characters, no terminator.
    void write(char* out) const noexcept;
    bool isValid() const noexcept { return *this != QORGUIDBase(); }
    const std::array<std::uint8_t, 16>& bytes() const noexcept { return m_bytes; }

    // NOLINTNEXTLINE(modernize-use-nullptr): the check takes the comparison with 0 behind the default for a pointer's
    friend auto operator<=>(const QORGUIDBase&, const QORGUIDBase&) = default;

private:
    std::array<std::uint8_t, 16> m_bytes{};
};

/// The identifier of an environment.
class QOR_API QOREID : public QORGUIDBase {
public:
    QOREID() = default;
    explicit QOREID(const QORGUIDBase& guid) : QORGUIDBase(guid) {}
    // NOLINTNEXTLINE(modernize-use-nullptr): the check takes the comparison with 0 behind the default for a pointer's
    friend auto operator<=>(const QOREID&, const QOREID&) = default;
};

}  // namespace QOR

template <>
struct std::hash<QOR::QOREID> {
    std::size_t operator()(const QOR::QOREID& eid) const noexcept {
        std::size_t value = 0;
        for (const auto byte : eid.bytes())
            value = value * 131 + byte;
        return value;
    }
};
