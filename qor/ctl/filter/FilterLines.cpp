// The inspector's exact mode: JSON lines in, JSON lines out.
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <istream>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "QORCommon/QORText.h"
#include "QORPager/QORDateTimeRewrite.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORExpressionText.h"
#include "filter/FilterInspector.h"

namespace QOR {
namespace {

using Json = rapidjson::Value;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

/// What is shown in place of a value when evaluating it threw.
constexpr std::string_view outOfRange = "!out_of_range";
/// Deeper lines are refused: nothing of a question nests like that, and copying the id recurses.
constexpr std::size_t deepestNesting = 64;
constexpr std::size_t blockSize = std::size_t{1} << 16U;

/// A line that is no question.
class InvalidLine : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void refuse(const std::string& what) {
    throw InvalidLine(what);
}

const Json* find(const Json& object, const char* name) {
    const auto member = object.FindMember(name);
    return member == object.MemberEnd() ? nullptr : &member->value;
}

std::string_view view(const Json& string) {
    return {string.GetString(), string.GetStringLength()};
}

/// A byte string: a JSON string, or {"base64":"..."}.
std::string readText(const Json* value, const char* name) {
    if (value != nullptr && value->IsString()) return std::string(view(*value));
    if (value != nullptr && value->IsObject()) {
        const Json* const encoded = find(*value, "base64");
        if (encoded != nullptr && encoded->IsString()) {
            if (auto bytes = parseBase64(view(*encoded))) return *std::move(bytes);
        }
    }
    refuse(std::string("\"") + name + "\" is not a text");
}

/// The elements of a member that is an array; none when it is absent.
Json::ConstArray readArray(const Json& object, const char* name) {
    static const Json none(rapidjson::kArrayType);
    const Json* const value = find(object, name);
    if (value == nullptr || value->IsNull()) return none.GetArray();
    if (!value->IsArray()) refuse(std::string("\"") + name + "\" is not an array");
    return value->GetArray();
}

bool readFlag(const Json& object, const char* name) {
    const Json* const value = find(object, name);
    if (value == nullptr || value->IsNull()) return false;
    if (!value->IsBool()) refuse(std::string("\"") + name + "\" is neither true nor false");
    return value->GetBool();
}

void writeKey(std::string_view name, Writer& writer) {
    writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
}

void writeText(std::string_view value, Writer& writer) {
    if (isUtf8(value)) {
        writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
        return;
    }
    std::string encoded;
    appendBase64(value, encoded);
    writer.StartObject();
    writeKey("base64", writer);
    writer.String(encoded.data(), static_cast<rapidjson::SizeType>(encoded.size()));
    writer.EndObject();
}

/// A name to bind and its value; a value that is not given is 0, false or "".
struct Identifier {
    std::string name;
    TValueType type = TValueType::Invalid;
    std::int32_t number = 0;  ///< of a boolean 0 or 1
    std::string text;
    bool special = false;
};

TValueType readType(const Json& object) {
    const std::string word = readText(find(object, "type"), "type");
    if (word == "int") return TValueType::Integer;
    if (word == "string") return TValueType::String;
    if (word == "bool") return TValueType::Boolean;
    refuse("\"type\" is none of \"int\", \"string\" and \"bool\"");
}

Identifier readIdentifier(const Json& object) {
    if (!object.IsObject()) refuse("an identifier is not an object");
    Identifier identifier;
    identifier.name = readText(find(object, "name"), "name");
    identifier.type = readType(object);
    identifier.special = readFlag(object, "special");
    const Json* const value = find(object, "value");
    if (value == nullptr || value->IsNull()) return identifier;
    if (identifier.type == TValueType::String) {
        identifier.text = readText(value, "value");
    } else if (identifier.type == TValueType::Boolean) {
        identifier.number = readFlag(object, "value") ? 1 : 0;
    } else if (!value->IsInt64()) {
        refuse("the \"value\" of an int is not a whole number");
    } else {
        identifier.number = wrapInteger(static_cast<std::uint32_t>(value->GetInt64()));
    }
    return identifier;
}

std::vector<Identifier> readIdentifiers(const Json& object, const char* name) {
    std::vector<Identifier> identifiers;
    for (const Json& element : readArray(object, name))
        identifiers.push_back(readIdentifier(element));
    return identifiers;
}

bool bind(TExpressionEvaluation& evaluator, const Identifier& identifier) {
    switch (identifier.type) {
        case TValueType::Integer:
            return evaluator.setIdentifier(identifier.name, identifier.number, identifier.special);
        case TValueType::Boolean:
            return evaluator.setIdentifier(identifier.name, identifier.number != 0, identifier.special);
        default:
            return evaluator.setIdentifier(identifier.name, std::string_view(identifier.text), identifier.special);
    }
}

/// Answers one question about a filter.
class FilterAnswer {
public:
    FilterAnswer(const Json& question, Writer& writer)
        : m_question(question),
          m_writer(writer),
          m_text(readText(find(question, "text"), "text")),
          m_identifiers(readIdentifiers(question, "identifiers")) {
        makeEvaluator();
    }

    void write() {
        writeParsing();
        writeTrees();
        writeValues();
        writeConstants();
        writeBound();
        if (find(m_question, "rows") != nullptr) writeRows("rows", false);
        if (find(m_question, "rowsSpecial") != nullptr) writeRows("rowsSpecial", true);
    }

private:
    void makeEvaluator() {
        m_evaluator.emplace();
        m_bound.clear();
        for (const Identifier& identifier : m_identifiers)
            m_bound.push_back(bind(*m_evaluator, identifier));
        m_evaluator->setExpression(m_text);
    }

    /// An evaluator as one that was just made, bound and given the text: setting a text takes back everything but the
    /// bindings, and nothing but rows changes those.
    TExpressionEvaluation& fresh() {
        m_evaluator->setExpression(m_text);
        return *m_evaluator;
    }

    void key(std::string_view name) { writeKey(name, m_writer); }

    void text(std::string_view value) { writeText(value, m_writer); }

    void error(std::string_view name) {
        key(name);
        m_writer.StartObject();
        key("code");
        m_writer.Int(m_evaluator->getErrorCode());
        key("message");
        text(m_evaluator->getErrorMessage());
        m_writer.EndObject();
    }

    /// Writes what `evaluation` writes, or the mark of the exception that leaves it.
    template <class Evaluation>
    void value(std::string_view name, Evaluation evaluation) {
        key(name);
        try {
            evaluation();
        } catch (const std::out_of_range&) {
            text(outOfRange);
        }
    }

    void boolean(bool special) {
        bool out = false;
        const bool failed = special ? m_evaluator->returnBooleanSpecial(out) : m_evaluator->returnBoolean(out);
        failed ? m_writer.Null() : m_writer.Bool(out);
    }

    void writeParsing() {
        fresh().prepare();
        error("parse");
        key("postfix");
        text(fresh().getPostfix());
        fresh().prepare();
        key("used");
        m_writer.StartArray();
        for (const std::string& name : m_evaluator->usedIdentifiers())
            text(name);
        m_writer.EndArray();
    }

    void writeTrees() {
        fresh().prepareSpecial();
        error("treeError");
        key("infix");
        text(fresh().getInfix());
        key("infixSpecial");
        text(fresh().getInfixSpecial());
        key("infixNotSpecial");
        text(fresh().getInfixNotSpecial());
        key("onlySpecial");
        m_writer.Bool(fresh().onlySpecial());
        key("onlyNotSpecial");
        m_writer.Bool(fresh().onlyNotSpecial());
    }

    void writeValues() {
        fresh();
        value("value", [this] { text(m_evaluator->toString()); });
        error("error");
        fresh();
        value("valueSpecial", [this] { text(m_evaluator->toStringSpecial()); });
        error("errorSpecial");
        fresh();
        value("boolean", [this] { boolean(false); });
        error("booleanError");
        fresh();
        value("booleanSpecial", [this] { boolean(true); });
        error("booleanSpecialError");
        fresh();
        value("integer", [this] { m_writer.Int(m_evaluator->returnInteger()); });
        fresh();
        value("string", [this] { text(m_evaluator->returnString()); });
    }

    void writeConstants() {
        key("extract");
        m_writer.StartArray();
        for (const Json& query : readArray(m_question, "extract")) {
            if (!query.IsObject()) refuse("an element of \"extract\" is not an object");
            const std::string name = readText(find(query, "name"), "name");
            const Json* const type = find(query, "type");
            if (type == nullptr || !type->IsInt()) refuse("the \"type\" of an element of \"extract\" is not a number");
            bool found = false;
            const std::string& constant =
                fresh().extractConstByIdentifierAndOperation(name, static_cast<TTokenType>(type->GetInt()), found);
            m_writer.StartObject();
            key("found");
            m_writer.Bool(found);
            key("text");
            text(constant);
            m_writer.EndObject();
        }
        m_writer.EndArray();
    }

    void writeBound() {
        key("bound");
        m_writer.StartArray();
        for (const bool taken : m_bound)
            m_writer.Bool(taken);
        m_writer.EndArray();
    }

    void writeRows(const char* name, bool special) {
        makeEvaluator();
        special ? m_evaluator->prepareSpecial() : m_evaluator->prepare();
        key(name);
        m_writer.StartArray();
        for (const Json& row : readArray(m_question, name)) {
            if (!row.IsObject()) refuse("a row is not an object");
            m_writer.StartObject();
            bindRow(row);
            value("boolean", [this, special] { boolean(special); });
            error("error");
            m_writer.EndObject();
        }
        m_writer.EndArray();
    }

    void bindRow(const Json& row) {
        for (const Identifier& identifier : readIdentifiers(row, "bind"))
            bind(*m_evaluator, identifier);
        key("set");
        m_writer.StartArray();
        for (const Json& pair : readArray(row, "set")) {
            if (!pair.IsArray() || pair.Size() != 2) refuse("an element of \"set\" is not a pair of name and text");
            const std::string name = readText(&pair[0], "name");
            m_writer.Bool(m_evaluator->setIdentifierFromString(name, readText(&pair[1], "text")));
        }
        m_writer.EndArray();
        if (const Json* const next = find(row, "text")) m_evaluator->setExpression(readText(next, "text"));
    }

    const Json& m_question;
    Writer& m_writer;
    std::string m_text;
    std::vector<Identifier> m_identifiers;
    std::optional<TExpressionEvaluation> m_evaluator;
    std::vector<bool> m_bound;
};

void writeDateTime(const Json& question, Writer& writer) {
    std::string where = readText(find(question, "text"), "text");
    const bool ok = transformDateTime(where);
    writeKey("ok", writer);
    writer.Bool(ok);
    writeKey("text", writer);
    ok ? writeText(where, writer) : static_cast<void>(writer.Null());
}

bool isDateTime(const Json& question) {
    const Json* const kind = find(question, "kind");
    if (kind == nullptr) return false;
    if (kind->IsString() && view(*kind) == "datetime") return true;
    if (kind->IsString() && view(*kind) == "filter") return false;
    refuse("\"kind\" is neither \"filter\" nor \"datetime\"");
}

/// Whether arrays and objects of a JSON text nest deeper than a question can.
bool nestsTooDeep(std::string_view json) noexcept {
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < json.size(); ++i) {
        const char ch = json[i];
        if (inString) {
            if (ch == '\\') {
                ++i;
            } else if (ch == '"') {
                inString = false;
            }
        } else if (ch == '"') {
            inString = true;
        } else if (ch == '[' || ch == '{') {
            if (++depth > deepestNesting) return true;
        } else if ((ch == ']' || ch == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

/// Reads lines and collects the answers.
class LineAnswerer {
public:
    /// \returns whether the line was a question
    bool answer(std::string_view line) {
        m_memory.Clear();
        rapidjson::Document document(&m_memory, documentDepth);
        const std::size_t before = m_out.GetSize();
        try {
            parse(line, document);
            writeAnswer(document, nullptr);
            return true;
        } catch (const InvalidLine& error) {
            m_out.Pop(m_out.GetSize() - before);
            writeAnswer(document, error.what());
            return false;
        }
    }

    std::string_view answers() const { return {m_out.GetString(), m_out.GetSize()}; }
    void clear() { m_out.Clear(); }

private:
    static constexpr std::size_t documentDepth = 1024;  ///< bytes of the reader's first stack

    static void parse(std::string_view line, rapidjson::Document& document) {
        if (nestsTooDeep(line)) refuse("nested deeper than " + std::to_string(deepestNesting));
        document.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseFullPrecisionFlag>(line.data(), line.size());
        if (document.HasParseError()) {
            refuse(std::string(rapidjson::GetParseError_En(document.GetParseError())) + " (at byte " +
                   std::to_string(document.GetErrorOffset()) + ")");
        }
        if (!document.IsObject()) refuse("not a JSON object");
    }

    void writeAnswer(const rapidjson::Document& question, const char* complaint) {
        Writer writer(m_out);
        writer.StartObject();
        writeKey("id", writer);
        const bool readable = !question.HasParseError() && question.IsObject();
        const Json* const id = readable ? find(question, "id") : nullptr;
        id != nullptr ? static_cast<void>(id->Accept(writer)) : static_cast<void>(writer.Null());
        if (complaint != nullptr) {
            writeKey("invalid", writer);
            writeText(complaint, writer);
        } else if (isDateTime(question)) {
            writeDateTime(question, writer);
        } else {
            FilterAnswer(question, writer).write();
        }
        writer.EndObject();
        m_out.Put('\n');
    }

    rapidjson::MemoryPoolAllocator<> m_memory{blockSize};
    rapidjson::StringBuffer m_out;
};

}  // namespace

int runFilterLines(std::istream& in, std::ostream& out) {
    LineAnswerer answerer;
    std::string line;
    int exitCode = 0;
    const auto writeOut = [&] {
        out << answerer.answers() << std::flush;
        answerer.clear();
    };
    while (std::getline(in, line)) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        if (!answerer.answer(line)) exitCode = 1;
        // A client that waits for this answer before it asks again must not wait for a full block.
        if (answerer.answers().size() >= blockSize || in.rdbuf()->in_avail() <= 0) writeOut();
    }
    writeOut();
    return exitCode;
}

}  // namespace QOR
