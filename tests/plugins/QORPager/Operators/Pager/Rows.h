/// \file
/// Rows for the tests of fields: one of each kind that has every value, and one that has none.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "QORLibAgent/QOREnvCache.h"
#include "QORPager/QORArg.h"

namespace QOR::test {

constexpr const char* eidA = "aaaaaaaa-0000-4000-8000-000000000001";
constexpr const char* eidB = "bbbbbbbb-0000-4000-8000-000000000002";
constexpr const char* eidC = "cccccccc-0000-4000-8000-000000000003";

inline QOREID eid(const char* text) {
    QOREID id;
    id.fromString(text);
    return id;
}

inline QORInfo parameter(std::string name, std::vector<std::pair<std::string, std::string>> children) {
    QORInfo info(std::move(name));
    for (auto& [childName, value] : children)
        info.add(std::move(childName), std::move(value));
    return info;
}

/// A configuration whose texts all begin with the prefix.
inline QORPtr<const QOREnvConfig> fullConfig(const std::string& prefix) {
    QOREnvConfigData data;
    data[QOREnvMember::Name] = prefix + "name";
    data[QOREnvMember::Description] = prefix + "description";
    data[QOREnvMember::Domain] = prefix + "domain";
    data[QOREnvMember::Hostname] = prefix + "hostname";
    data[QOREnvMember::Architecture] = prefix + "architecture";
    data[QOREnvMember::Type] = prefix + "type";
    data[QOREnvMember::OsName] = prefix + "os";
    data[QOREnvMember::OsPlatform] = prefix + "platform";
    data[QOREnvMember::OsVersion] = prefix + "version";
    data[QOREnvMember::OsKernel] = prefix + "kernel";
    data.addresses = {{prefix + "1", prefix + "2", prefix + "3"}};
    data.further.add("base_sample_id", prefix + "sample");
    data.further.add("base_snapshot_id", prefix + "snapshot");
    data.further.add("memory", "2048");
    data.further.add("flag", "true");
    data.further.add("made", "1700000000");
    data.further.add("secret", "c2VjcmV0");
    data.further.add(parameter("disk", {{"size", "10"}, {"path", "/a"}}));
    data.further.add(parameter("disk", {{"size", "20"}, {"path", "/b"}}));
    return makeQORPtr<const QOREnvConfig>(std::move(data));
}

/// A child of eidB.
inline QORPtr<const QOREnv> fullEnv() {
    return makeQORPtr<const QOREnv>(eid(eidA), eid(eidB), "title", QOREnv::Status{6, 3}, fullConfig("c-"),
                                    fullConfig("v-"));
}

inline QORPtr<const QOREnv> bareEnv(const char* id = eidA) {
    return makeQORPtr<const QOREnv>(eid(id));
}

inline QORInfo fullInfo() {
    QORInfo info;
    info.add("task_id", "task");
    info.add(parameter("source_env", {{"title", "source title"}, {"eid", eidC}, {"type", "container"}}));
    return info;
}

inline std::shared_ptr<QORProgressArg> fullOperation() {
    auto row = std::make_shared<QORProgressArg>(bareEnv());
    row->record.id = "id";
    row->record.parentId = "parent";
    row->record.op = "op";
    row->record.status = -7;
    row->record.time = 1700000000;
    row->record.eid = eid(eidA);
    row->record.eids = {eid(eidC), eid(eidA), eid(eidB)};
    row->record.message = fullInfo();
    row->origin = QORLogDBEntryOrigin::fromInfo(row->record.message);
    return row;
}

inline std::shared_ptr<QOREventArg> fullEvent() {
    auto row = std::make_shared<QOREventArg>(bareEnv());
    row->event.time = 1700000000;
    row->event.eid = eid(eidA);
    row->event.source = "source";
    row->event.category = "category";
    row->event.info = fullInfo();
    row->origin = QORLogDBEntryOrigin::fromInfo(row->event.info);
    return row;
}

/// A cache that is the process's for as long as it lives.
class ScopedEnvCache {
public:
    ScopedEnvCache() : m_before(envCache()) { setEnvCache(&cache); }
    ~ScopedEnvCache() { setEnvCache(m_before); }
    ScopedEnvCache(const ScopedEnvCache&) = delete;
    ScopedEnvCache& operator=(const ScopedEnvCache&) = delete;
    QOREnvCache cache;

private:
    QOREnvCache* m_before;
};

}  // namespace QOR::test
