/// \file
/// The tag dictionary: message elements are numeric tags; names exist for people.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// The numeric identifier of a message element. 0 is no element: as an argument it means "the current element" or
/// "any element", as each operation says.
using QORTag = std::uint32_t;

/// Contract: never renumber. Clients and stored requests carry these numbers.
namespace tag {
inline constexpr QORTag type = 1007;
inline constexpr QORTag view = 1009;
inline constexpr QORTag value = 1018;
inline constexpr QORTag size = 1024;
inline constexpr QORTag name = 1026;
inline constexpr QORTag total = 1040;
inline constexpr QORTag cell = 1082;
inline constexpr QORTag offset = 1087;
inline constexpr QORTag source = 1156;
inline constexpr QORTag message = 1224;
inline constexpr QORTag statistics = 1259;
inline constexpr QORTag limit = 1377;
inline constexpr QORTag descending = 1378;
inline constexpr QORTag cache = 1493;
inline constexpr QORTag env = 1624;
inline constexpr QORTag reply = 1738;
inline constexpr QORTag row = 1739;
inline constexpr QORTag select = 1740;
inline constexpr QORTag field = 1741;
inline constexpr QORTag where = 1742;
inline constexpr QORTag sort = 1743;
inline constexpr QORTag rowSet = 1744;
inline constexpr QORTag function = 2222;
inline constexpr QORTag eq = 2225;
inline constexpr QORTag ne = 2226;
inline constexpr QORTag gt = 2227;
inline constexpr QORTag ge = 2228;
inline constexpr QORTag lt = 2229;
inline constexpr QORTag le = 2230;
inline constexpr QORTag like = 2231;
inline constexpr QORTag between = 2232;
inline constexpr QORTag isNull = 2233;
inline constexpr QORTag in = 2234;
inline constexpr QORTag logicalAnd = 2235;
inline constexpr QORTag logicalOr = 2236;
inline constexpr QORTag logicalNot = 2237;
inline constexpr QORTag distinct = 2293;
inline constexpr QORTag escape = 2301;
inline constexpr QORTag ordered = 2401;
inline constexpr QORTag after = 2402;
inline constexpr QORTag count = 2403;
inline constexpr QORTag deadline = 2404;
inline constexpr QORTag exact = 2405;
inline constexpr QORTag now = 2406;
inline constexpr QORTag explain = 2407;
inline constexpr QORTag next = 2411;
inline constexpr QORTag exactness = 2412;
inline constexpr QORTag changed = 2413;
inline constexpr QORTag most = 2414;
inline constexpr QORTag spent = 2415;

/// Names without a number of their own are interned from here up; the first are reserved for the host itself.
inline constexpr QORTag firstInterned = 1000000;
inline constexpr QORTag error = 1000000;      ///< an error entry of a response
inline constexpr QORTag errorCode = 1000001;  ///< its code; its text stands under `message`

/// Names that only one message knows are numbered from here up, by each message anew: QORMessageNames.
inline constexpr QORTag firstOfMessage = 0x80000000;
}  // namespace tag

/// Names and numbers of elements, one dictionary a process. Thread-safe; names live as long as the process.
class QOR_API QORTagDictionary {
public:
    static QORTagDictionary& instance();

    /// The number of a known name, empty for an unknown one. For names that come from outside: asking never grows
    /// the dictionary.
    std::optional<QORTag> find(std::string_view name) const;
    /// The number of a name, interned when it is new. Only for names that the host or its configuration chose, never
    /// for those in data (QORMessageIterator::addNamed): what is interned stays until the process ends.
    /// \throws QORException errFailure for the empty name, and when the dictionary is full
    QORTag intern(std::string_view name);
    /// The name of a number, empty when it has none.
    std::string_view name(QORTag id) const;

protected:
    QORTagDictionary();
    ~QORTagDictionary();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
