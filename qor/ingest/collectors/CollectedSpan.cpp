#include "ingest/collectors/CollectedSpan.h"

#include <algorithm>
#include <ctime>
#include <limits>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"

namespace QOR {
namespace {

constexpr std::int64_t never = std::numeric_limits<std::int64_t>::min();

}  // namespace

CollectedSpan::CollectedSpan(const std::string& position) : m_begin(never), m_last(never) {
    const auto last = parseInt64(position);
    if (!last || *last < never + secondsOfDay) return;
    m_last = *last;
    m_begin = m_last - secondsOfDay;
}

void CollectedSpan::take(std::int64_t time) noexcept {
    m_last = std::max(m_last, time);
}

std::string CollectedSpan::position() const {
    return m_last == never ? std::string() : std::to_string(std::min<std::int64_t>(m_last, std::time(nullptr)));
}

void CollectedSpan::end(QORCollection& collection, const LogReading& log) const {
    collection.passOver(log.malformed);
    for (const std::string& file : log.unreadable)
        collection.cannotRead(file);
    if (log.unreadable.empty()) collection.setPosition(position());
}

}  // namespace QOR
