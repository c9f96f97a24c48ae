#include "ingest/collectors/CollectedOperation.h"

#include <utility>

#include "QORCommon/QORText.h"
#include "QORCommon/QORXmlText.h"

namespace QOR {

QOROperationRecord collectedOperation(const QOREnvironmentRecord& machine, std::string_view name) {
    QOROperationRecord record;
    record.id = QORGUIDBase::fromName(machine.eid, name).toString();
    record.eid = machine.eid;
    record.eids.push_back(machine.eid);
    return record;
}

void addSource(QORInfo& message, const QOREnvironmentRecord& machine) {
    QORInfo env("env");
    env.add("eid", machine.eid.toString());
    QORInfo source("source_env");
    source.add("eid", machine.eid.toString());
    if (machine.title) source.add("title", *machine.title);
    source.add("type", "host");
    message.add(std::move(env)).add(std::move(source));
}

std::string collectedText(std::string_view text) {
    constexpr std::size_t longest = 4096;
    const std::string readable = toXmlText(text);
    return readable.substr(0, utf8Prefix(std::string_view(readable).substr(0, longest)));
}

void addText(QORInfo& info, std::string_view name, std::string_view text) {
    if (!text.empty()) info.add(std::string(name), toXmlText(text));
}

}  // namespace QOR
