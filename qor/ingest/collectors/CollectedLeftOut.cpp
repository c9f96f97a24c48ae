#include "ingest/collectors/CollectedLeftOut.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORTime.h"
#include "ingest/QORRecords.h"
#include "ingest/RecordLines.h"
#include "ingest/collectors/CollectedOperation.h"

namespace QOR {

void CollectedLeftOut::add(std::string_view of, std::string_view name, std::int64_t time) {
    if (m_count++ == 0) {
        m_name = name;
        m_first = time;
    }
    m_last = std::max(m_last, time);
    const std::size_t count = ++m_ofOne[std::string(of)];
    if (count <= m_most) return;
    m_most = count;
    m_loudest = of;
}

void CollectedLeftOut::tell(QORCollection& collection, const std::string& source) const {
    if (m_count == 0) return;
    QOREventRecord event;
    event.time = m_last;
    event.eid = collection.machine();
    event.id = QORGUIDBase::fromName(event.eid, source + " left out " + m_name);
    event.source = source;
    event.category = "env_status";
    QORInfo info;
    info.add("left_out", std::to_string(m_count));
    info.add("from", time2str(m_first));
    info.add("until", time2str(m_last));
    addText(info, "most_of", m_loudest);
    info.add("of_it", std::to_string(m_most));
    event.info = std::move(info);
    collection.add(lineOf(event));
}

}  // namespace QOR
