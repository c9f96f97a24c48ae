#include "agent/api/AgentRowsWriter.h"

#include <rapidjson/writer.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORJsonNumber.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORXmlText.h"
#include "QORMessage/QORTags.h"

namespace QOR {
namespace {

/// A text as RapidJSON writes to one.
class TextStream {
public:
    using Ch = char;
    explicit TextStream(std::string& text) : m_text(text) {}
    void Put(char c) { m_text += c; }
    void Flush() {}
    std::string& text() noexcept { return m_text; }

private:
    std::string& m_text;
};

/// Whether one of eight letters is more than JSON's texts hold as they are: no ASCII, a control character, a quote or a
/// backslash.
bool hasOther(std::uint64_t letters) noexcept {
    constexpr std::uint64_t each = 0x0101010101010101;
    const auto hasZero = [](std::uint64_t word) { return (word - each) & ~word; };
    const std::uint64_t control = (letters - ' ' * each) & ~letters;
    const std::uint64_t found = letters | control | hasZero(letters ^ ('"' * each)) | hasZero(letters ^ ('\\' * each));
    return (found & (0x80 * each)) != 0;
}

bool isPlain(std::string_view text) noexcept {
    std::uint64_t letters = 0;
    for (; text.size() >= sizeof letters; text.remove_prefix(sizeof letters)) {
        std::memcpy(&letters, text.data(), sizeof letters);
        if (hasOther(letters)) return false;
    }
    letters = 0x2020202020202020;
    for (const char c : text)
        letters = letters << 8U | static_cast<unsigned char>(c);
    return !hasOther(letters);
}

/// Most of an answer is texts. RapidJSON writes them letter by letter; here those that need no escape are taken
/// together. All escapes are RapidJSON's.
class Json : public rapidjson::Writer<TextStream> {
public:
    using rapidjson::Writer<TextStream>::Writer;

    void text(std::string_view value) {
        const auto needsEscape = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\'; };
        if (!isPlain(value) && std::any_of(value.begin(), value.end(), needsEscape)) {
            String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
        } else {
            withoutEscapes(value);
        }
    }
    /// One text of two parts, neither of which needs escapes.
    void withoutEscapes(std::string_view value, std::string_view ending = {}) {
        Prefix(rapidjson::kStringType);
        std::string& out = os_->text();
        out += '"';
        out += value;
        out += ending;
        out += '"';
        EndValue(true);
    }
    void raw(std::string_view value, rapidjson::Type type) {
        Prefix(type);
        os_->text() += value;
        EndValue(true);
    }
};

void writeString(Json& json, std::string_view text) {
    json.text(text);
}
void writeName(Json& json, std::string_view name) {
    json.text(name);
}
void writeRaw(Json& json, std::string_view value, rapidjson::Type type) {
    json.raw(value, type);
}

/// What no number of JSON says, spelled as other programs do.
std::string_view oddNumber(std::string_view text) noexcept {
    if (isSameWord(text, "inf") || isSameWord(text, "infinity")) return "Infinity";
    if (isSameWord(text, "-inf") || isSameWord(text, "-infinity")) return "-Infinity";
    if (isSameWord(text, "nan") || isSameWord(text, "-nan")) return "NaN";
    return text;
}

constexpr std::string_view utc = "+0000";

/// RFC 3339's form of a time that is told in UTC.
std::string withZ(std::string_view time) {
    std::string text(time);
    if (time.ends_with(utc)) text.replace(time.size() - utc.size(), utc.size(), 1, 'Z');
    return text;
}

/// A value as a text without marks of its type.
std::string plainText(const AgentColumn& column, const QORRowValue& value) {
    if (value.kind == QORValueKind::Binary || column.kind == QORColumnKind::Bytes) {
        std::string text;
        appendBase64(value.bytes, text);
        return text;
    }
    if (column.kind == QORColumnKind::Time) return withZ(value.bytes);
    if (column.kind == QORColumnKind::Number) return std::string(oddNumber(value.bytes));
    std::string text(value.bytes);
    if (column.list) std::replace(text.begin(), text.end(), AgentRowsWriter::listSeparator, ' ');
    return text;
}

void writeTextValue(Json& json, std::string_view text) {
    if (isPlain(text) || isUtf8(text)) return writeString(json, text);
    std::string bytes;
    appendBase64(text, bytes);
    json.StartObject();
    writeName(json, "base64");
    writeString(json, bytes);
    json.EndObject();
}

void writeTime(Json& json, std::string_view time) {
    if (!time.ends_with(utc) || !isPlain(time)) return writeTextValue(json, withZ(time));
    json.withoutEscapes(time.substr(0, time.size() - utc.size()), "Z");
}

void writeOne(Json& json, const AgentColumn& column, const QORRowValue& value) {
    const bool isNumber = column.kind == QORColumnKind::Integer || column.kind == QORColumnKind::Number;
    if (isNumber && isJsonNumber(value.bytes)) return writeRaw(json, value.bytes, rapidjson::kNumberType);
    if (column.kind == QORColumnKind::Text || column.kind == QORColumnKind::Identifier)
        return writeTextValue(json, value.bytes);
    if (value.bytes.empty()) {  // how sources tell that there is none
        json.Null();
        return;
    }
    if (column.kind == QORColumnKind::Time) return writeTime(json, value.bytes);
    if (column.kind == QORColumnKind::Integer && (value.bytes == "true" || value.bytes == "false")) {
        json.Int(value.bytes == "true" ? 1 : 0);
        return;
    }
    writeTextValue(json, plainText(column, value));
}

void writeValue(Json& json, const AgentColumn& column, const QORRowValue& value) {
    if (value.kind == QORValueKind::None) {
        json.Null();
    } else if (value.kind == QORValueKind::Binary) {
        writeString(json, plainText(column, value));
    } else if (!column.list) {
        writeOne(json, column, value);
    } else {
        json.StartArray();
        std::string_view rest = value.bytes;
        while (!rest.empty()) {
            const std::string_view item = rest.substr(0, rest.find(AgentRowsWriter::listSeparator));
            rest.remove_prefix(std::min(item.size() + 1, rest.size()));
            writeOne(json, column, {item, QORValueKind::Text});
        }
        json.EndArray();
    }
}

/// Members of a page with their values as JSON spells them.
template <class Member>
void forMembers(const AgentPage& page, Member member) {
    const auto quoted = [](std::string_view text) {
        std::string out;
        if (isPlain(text)) {
            out.append(1, '"').append(text).append(1, '"');
        } else {
            appendJsonString(text, out);
        }
        return out;
    };
    member("returned", std::to_string(page.returned));
    if (page.total) member("total", std::to_string(*page.total));
    if (!page.exactness.empty()) member("exactness", quoted(page.exactness));
    if (page.most) member("most", std::to_string(*page.most));
    if (page.spent) member("spent", std::to_string(*page.spent));
    if (page.goesOn) member("next", page.next ? quoted(*page.next) : "null");
    if (page.changed) member("changed", *page.changed ? "true" : "false");
}

void writePage(Json& json, const AgentPage& page) {
    json.StartObject();
    forMembers(page, [&](std::string_view name, const std::string& value) {
        writeName(json, name);
        writeRaw(json, value, rapidjson::kStringType);
    });
    json.EndObject();
}

class JsonRows final : public AgentRowsWriter {
public:
    explicit JsonRows(Output output) : AgentRowsWriter(std::move(output)) {}

    void begin(std::vector<AgentColumn> columns) override {
        m_columns = std::move(columns);
        m_json.StartObject();
        writeName(m_json, "columns");
        m_json.StartArray();
        for (const AgentColumn& column : m_columns) {
            m_json.StartObject();
            writeName(m_json, "name");
            writeString(m_json, column.name);
            writeName(m_json, "type");
            writeString(m_json, wordOf(column.kind));
            if (column.list) {
                writeName(m_json, "list");
                m_json.Bool(true);
            }
            m_json.EndObject();
        }
        m_json.EndArray();
        writeName(m_json, "rows");
        m_json.StartArray();
    }
    void row(std::span<const QORRowValue> values) override {
        m_json.StartArray();
        for (std::size_t at = 0; at < m_columns.size(); ++at)
            writeValue(m_json, m_columns[at], values[at]);
        m_json.EndArray();
        settle();
    }
    void end(const AgentPage& page) override {
        m_json.EndArray();
        writeName(m_json, "page");
        writePage(m_json, page);
        m_json.EndObject();
        flush();
    }

private:
    std::vector<AgentColumn> m_columns;
    TextStream m_stream{text()};
    Json m_json{m_stream};
};

class NdjsonRows final : public AgentRowsWriter {
public:
    explicit NdjsonRows(Output output) : AgentRowsWriter(std::move(output)) {}

    void begin(std::vector<AgentColumn> columns) override { m_columns = std::move(columns); }
    void row(std::span<const QORRowValue> values) override {
        line([&](Json& json) {
            for (std::size_t at = 0; at < m_columns.size(); ++at) {
                writeName(json, m_columns[at].name);
                writeValue(json, m_columns[at], values[at]);
            }
        });
        settle();
    }
    void end(const AgentPage& page) override {
        line([&](Json& json) {
            writeName(json, "page");
            writePage(json, page);
        });
        flush();
    }

private:
    template <class Members>
    void line(Members members) {
        m_json.Reset(m_stream);
        m_json.StartObject();
        members(m_json);
        m_json.EndObject();
        text() += '\n';
    }

    std::vector<AgentColumn> m_columns;
    TextStream m_stream{text()};
    Json m_json{m_stream};
};

class CsvRows final : public AgentRowsWriter {
public:
    explicit CsvRows(Output output) : AgentRowsWriter(std::move(output)) {}

    void begin(std::vector<AgentColumn> columns) override {
        m_columns = std::move(columns);
        for (std::size_t at = 0; at < m_columns.size(); ++at)
            field(at, m_columns[at].name);
        text() += lineEnd;
    }
    void row(std::span<const QORRowValue> values) override {
        for (std::size_t at = 0; at < m_columns.size(); ++at) {
            if (values[at].kind != QORValueKind::None) {
                field(at, plainText(m_columns[at], values[at]));
            } else if (at > 0) {
                text() += ',';
            }
        }
        text() += lineEnd;
        settle();
    }
    void end(const AgentPage&) override { flush(); }

private:
    static constexpr std::string_view lineEnd = "\r\n";

    /// An empty text is quoted, since an empty field is a null.
    void field(std::size_t at, std::string_view value) {
        std::string& out = text();
        if (at > 0) out += ',';
        if (!value.empty() && value.find_first_of(",\"\r\n") == std::string_view::npos) {
            out += value;
            return;
        }
        out += '"';
        for (const char c : value)
            out.append(c == '"' ? 2 : 1, c);
        out += '"';
    }

    std::vector<AgentColumn> m_columns;
};

class XmlRows final : public AgentRowsWriter {
public:
    explicit XmlRows(Output output) : AgentRowsWriter(std::move(output)) {}

    void begin(std::vector<AgentColumn> columns) override {
        m_columns = std::move(columns);
        text() += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<answer><columns>";
        for (const AgentColumn& column : m_columns) {
            text() += "<column";
            attribute("name", column.name);
            attribute("type", wordOf(column.kind));
            text() += "/>";
        }
        text() += "</columns><rows>";
    }
    void row(std::span<const QORRowValue> values) override {
        text() += "<row>";
        for (std::size_t at = 0; at < m_columns.size(); ++at)
            value(m_columns[at], values[at]);
        text() += "</row>";
        settle();
    }
    void end(const AgentPage& page) override {
        text() += "</rows><page";
        forMembers(page, [this](std::string_view name, std::string value) {
            if (value == "null") return;
            if (value.starts_with('"')) value = value.substr(1, value.size() - 2);  // tokens and words escape nothing
            attribute(name, value);
        });
        text() += "/></answer>\n";
        flush();
    }

private:
    void attribute(std::string_view name, std::string_view value) {
        text().append(" ").append(name).append("=\"");
        appendXmlText(isXmlText(value) ? value : "?", QORXmlPlace::Attribute, text());
        text() += '"';
    }
    void value(const AgentColumn& column, const QORRowValue& value) {
        if (value.kind == QORValueKind::None) {
            text() += "<v null=\"true\"/>";
            return;
        }
        std::string plain = plainText(column, value);
        if (isXmlText(plain)) {
            text() += "<v>";
        } else {
            std::string bytes;
            appendBase64(plain, bytes);
            plain = std::move(bytes);
            text() += "<v base64=\"true\">";
        }
        appendXmlText(plain, QORXmlPlace::Element, text());
        text() += "</v>";
    }

    std::vector<AgentColumn> m_columns;
};

/// As the operators' answers are in notation; values are as they came.
class NotationRows final : public AgentRowsWriter {
public:
    explicit NotationRows(Output output) : AgentRowsWriter(std::move(output)) {}

    void begin(std::vector<AgentColumn> columns) override {
        m_json.StartObject();
        writeName(m_json, "response");
        m_json.StartArray();
        m_json.StartArray();
        m_json.Uint(tag::rowSet);
        m_json.StartArray();
        for (const AgentColumn& column : columns)
            leaf(tag::name, column.name);
    }
    void row(std::span<const QORRowValue> values) override {
        m_json.StartArray();
        m_json.Uint(tag::row);
        m_json.StartArray();
        for (const QORRowValue& value : values) {
            m_json.StartArray();
            m_json.Uint(tag::value);
            if (value.kind == QORValueKind::Binary) {
                writeBytes(value.bytes);
            } else if (value.kind != QORValueKind::None) {
                writeTextValue(m_json, value.bytes);
            }
            m_json.EndArray();
        }
        m_json.EndArray();
        m_json.EndArray();
        settle();
    }
    void end(const AgentPage& page) override {
        if (page.total) leaf(tag::statistics, std::to_string(page.returned));
        if (page.total) leaf(tag::total, std::to_string(*page.total));
        if (!page.exactness.empty()) leaf(tag::exactness, page.exactness);
        if (page.most) leaf(tag::most, std::to_string(*page.most));
        if (page.spent) leaf(tag::spent, std::to_string(*page.spent));
        if (page.goesOn && page.next) leaf(tag::next, *page.next);
        if (page.goesOn && !page.next) flag(tag::next);
        if (page.changed) leaf(tag::changed, *page.changed ? "true" : "false");
        m_json.EndArray();
        m_json.EndArray();
        m_json.EndArray();
        m_json.EndObject();
        flush();
    }

private:
    void leaf(QORTag tag, std::string_view value) {
        m_json.StartArray();
        m_json.Uint(tag);
        writeTextValue(m_json, value);
        m_json.EndArray();
    }
    void flag(QORTag tag) {
        m_json.StartArray();
        m_json.Uint(tag);
        m_json.EndArray();
    }
    void writeBytes(std::string_view bytes) {
        std::string text;
        appendBase64(bytes, text);
        m_json.StartObject();
        writeName(m_json, "base64");
        writeString(m_json, text);
        m_json.EndObject();
    }

    TextStream m_stream{text()};
    Json m_json{m_stream};
};

}  // namespace

void AgentRowsWriter::flush() {
    if (!m_text.empty()) m_output(m_text);
    m_text.clear();
}

std::unique_ptr<AgentRowsWriter> makeRowsWriter(AgentFormat format, AgentRowsWriter::Output output) {
    switch (format) {
        case AgentFormat::Ndjson:
            return std::make_unique<NdjsonRows>(std::move(output));
        case AgentFormat::Csv:
            return std::make_unique<CsvRows>(std::move(output));
        case AgentFormat::Xml:
            return std::make_unique<XmlRows>(std::move(output));
        case AgentFormat::Notation:
            return std::make_unique<NotationRows>(std::move(output));
        case AgentFormat::Json:
            break;
    }
    return std::make_unique<JsonRows>(std::move(output));
}

}  // namespace QOR
