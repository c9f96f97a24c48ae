#include "ctl/commands/MadeRecords.h"

#include <string_view>

#include "QORCommon/QORTime.h"

namespace QOR::test {
namespace {

constexpr std::size_t mebibyte = 1024 * 1024;

std::string jsonText(std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    std::string json = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            json += '\\';
            json += c;
        } else if (byte < 0x20) {
            json += "\\u00";
            json += digits[byte >> 4];
            json += digits[byte & 15];
        } else {
            json += c;
        }
    }
    return json + '"';
}

std::string utf8(std::uint32_t code) {
    const auto tail = [&](unsigned shift) { return static_cast<char>(0x80 | ((code >> shift) & 0x3F)); };
    if (code < 0x80) return {static_cast<char>(code)};
    if (code < 0x800) return {static_cast<char>(0xC0 | (code >> 6)), tail(0)};
    if (code < 0x10000) return {static_cast<char>(0xE0 | (code >> 12)), tail(6), tail(0)};
    return {static_cast<char>(0xF0 | (code >> 18)), tail(12), tail(6), tail(0)};
}

}  // namespace

/// The members of a JSON object.
class RecordMaker::Members {
public:
    void add(std::string_view name, const std::string& json) {
        m_json += (m_json.empty() ? "" : ",") + jsonText(name) + ':' + json;
    }
    void text(std::string_view name, const std::string& value) { add(name, jsonText(value)); }
    void text(std::string_view name, const std::optional<std::string>& value) {
        if (value) text(name, *value);
    }
    void number(std::string_view name, std::int64_t value) { add(name, std::to_string(value)); }
    std::string object() const { return "{" + m_json + "}"; }

private:
    std::string m_json;
};

// Growing for a while, then shrinking, with tiny ones between; the buffers that values are kept in on their way meet
// each length beside longer and shorter ones.
std::size_t RecordMaker::size() {
    const unsigned turn = m_texts++;
    if (turn % 397 == 396) return mebibyte;
    if (turn % 3 == 0) return turn % 2;
    const unsigned step = turn / 3 % 24;
    const std::size_t base = std::size_t{1} << (step < 12 ? step : 23 - step);
    return base + below(3);
}

std::string RecordMaker::character(bool nul) {
    const std::uint32_t plane = below(20);
    if (plane > 16) return utf8(' ' + below(95));
    for (;;) {
        const std::uint32_t code = (plane << 16) | (plane == 0 && below(2) == 0 ? below(256) : below(0x10000));
        const bool surrogate = code >= 0xD800 && code < 0xE000;
        if (!surrogate && (nul || code != 0)) return utf8(code);
    }
}

std::string RecordMaker::text(bool nul) {
    const std::size_t wanted = size();
    std::string made;
    // A long one repeats itself, which makes it no easier to keep whole.
    while (made.size() < wanted && made.size() < 4096)
        made += character(nul);
    while (made.size() < wanted)
        made += made.substr(0, made.size());
    return made;
}

std::optional<std::string> RecordMaker::maybeText() {
    return below(5) == 0 ? std::nullopt : std::optional(text(false));
}

std::string RecordMaker::indexedText() {
    constexpr std::size_t longest = 2000;
    std::string made = text(false);
    while (made.size() > longest)
        made = text(false);
    return made;
}

std::string RecordMaker::guid() {
    std::string made = "00000000-0000-4000-8000-000000000000";
    for (char& c : made)
        if (c == '0') c = "0123456789abcdef"[below(16)];
    return made;
}

std::int64_t RecordMaker::time() {
    return static_cast<std::int64_t>(m_random() % 4'000'000'000ULL) - 2'000'000'000;
}

QORInfo RecordMaker::document(Members& json, MadeRecord& record, bool package) {
    QORInfo info;
    Members members;
    const auto add = [&](const std::string& name, const std::string& value) {
        members.text(name, value);
        info.add(name, value);
    };
    record.document = true;
    record.title = text(true);
    add("title", record.title);
    for (unsigned i = below(4); i > 0; --i)
        add(text(true) + std::to_string(i), text(true));
    members.add("list", R"([true,12,null,{"a":"b"}])");
    info.add("list", "true").add("list", "12").add("list", "");
    QORInfo item("list");
    item.add("a", "b");
    info.add(std::move(item));
    if (package) {
        Members inner;
        const std::string name = text(false);
        const std::string version = text(true);
        inner.text("name", name);
        inner.text("version", version);
        members.add("package", inner.object());
        QORInfo parameter("package");
        parameter.add("name", name).add("version", version);
        info.add(std::move(parameter));
        record.row["package"] = name;
        record.row["version"] = std::nullopt;
        if (version.find('\0') == std::string::npos) record.row["version"] = version;
    }
    json.add(record.view == "vOpLog" ? "message" : "info", members.object());
    return info;
}

QORInfo RecordMaker::configuration(Members& json, MadeRecord& record, bool columns) {
    QORInfo info;
    Members members;
    const auto column = [&](const char* name, const std::optional<std::string>& value) {
        if (columns) record.row[name] = value;
    };
    for (const char* name : {"name", "description", "domain", "hostname", "architecture", "type"}) {
        const auto value = std::string_view(name) != "hostname" ? maybeText() : std::optional(indexedText());
        members.text(name, value);
        if (value) info.add(name, *value);
        column(name, value);
    }
    Members os;
    QORInfo system("os");
    for (const char* name : {"name", "platform", "version", "kernel"}) {
        const std::string value = text(false);
        os.text(name, value);
        system.add(name, value);
        column((std::string("os_") + name).c_str(), value);
    }
    members.add("os", os.object());
    info.add(std::move(system));
    const std::string first = indexedText();
    const std::string second = indexedText();
    members.add("ip", "[" + jsonText(first) + "," + jsonText(second) + "]");
    info.add("ip", first).add("ip", second);
    column("ip", first);
    const std::int64_t memory = below(1U << 31);
    members.number("memory", memory);
    info.add("memory", std::to_string(memory));
    column("memory", std::to_string(memory));
    const std::string more = text(true);
    members.text("owner", more);
    info.add("owner", more);
    column("boot_time", std::nullopt);
    json.add(columns ? "config" : "virtual_config", members.object());
    return info;
}

MadeRecord RecordMaker::environment(unsigned number) {
    MadeRecord record;
    record.view = "vEnvironment";
    record.key = "0e000000-0000-4000-8000-" + std::to_string(100000000000 + number);
    Members json;
    json.text("kind", std::string("environment"));
    json.text("eid", record.key);
    const std::string parent = guid();
    json.text("parent_eid", parent);
    const auto title = maybeText();
    json.text("title", title);
    const std::int64_t state = below(9);
    json.number("state", state);
    record.row = {{"eid", record.key},
                  {"parent_eid", parent},
                  {"title", title},
                  {"state", std::to_string(state)},
                  {"transition", "0"}};
    record.row["config"] = configuration(json, record, true).serializeToString();
    record.row["virtual_config"] = std::nullopt;
    if (below(3) != 0) record.row["virtual_config"] = configuration(json, record, false).serializeToString();
    record.line = json.object();
    return record;
}

MadeRecord RecordMaker::operation(unsigned number) {
    MadeRecord record;
    record.view = "vOpLog";
    record.key = "op-" + std::to_string(number);
    Members json;
    json.text("kind", std::string("operation"));
    json.text("id", record.key);
    const auto parent = maybeText();
    json.text("parent_id", parent);
    const auto op = maybeText();
    json.text("op", op);
    const std::int64_t when = time();
    json.number("time", when);
    const std::string eid = guid();
    json.text("eid", eid);
    record.row = {{"id", record.key},        {"parent_id", parent},     {"op", op},
                  {"status", "0"},           {"time", time2str(when)},  {"eid", eid},
                  {"package", std::nullopt}, {"version", std::nullopt}, {"message", std::nullopt}};
    if (below(5) != 0) record.row["message"] = document(json, record, true).serializeToString();
    record.line = json.object();
    return record;
}

MadeRecord RecordMaker::event(unsigned) {
    MadeRecord record;
    record.view = "vEventLog";
    Members json;
    json.text("kind", std::string("event"));
    const std::int64_t when = time();
    json.number("time", when);
    const std::string eid = guid();
    json.text("eid", eid);
    const auto source = maybeText();
    json.text("source", source);
    const std::string category = below(2) == 0 ? "env_status" : indexedText();
    json.text("category", category);
    record.row = {{"time", time2str(when)}, {"eid", eid}, {"source", source}, {"category", category}};
    record.row["info"] = std::nullopt;
    if (below(5) != 0) record.row["info"] = document(json, record, false).serializeToString();
    record.line = json.object();
    return record;
}

MadeRecord RecordMaker::backup(unsigned number) {
    MadeRecord record;
    record.view = "vBackupInfo";
    record.key = "backup-" + std::to_string(number);
    Members json;
    json.text("kind", std::string("backup"));
    json.text("id", record.key);
    const std::string eid = guid();
    json.text("eid", eid);
    const std::int64_t when = time();
    json.number("time", when);
    const std::int64_t bytes = below(1U << 31);
    json.number("size", bytes);
    record.row = {{"id", record.key},
                  {"eid", eid},
                  {"storage_eid", std::nullopt},
                  {"time", time2str(when)},
                  {"size", std::to_string(bytes)},
                  {"type", "0"}};
    for (const char* name : {"description", "name", "hostname"}) {
        const auto value = maybeText();
        json.text(name, value);
        record.row[name] = value;
    }
    record.row["info"] = std::nullopt;
    if (below(5) != 0) record.row["info"] = document(json, record, false).serializeToString();
    record.line = json.object();
    return record;
}

}  // namespace QOR::test
