#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <pugixml.hpp>
#include <set>
#include <span>
#include <system_error>
#include <unordered_map>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORLibLocal/QORVocabulary.h"

namespace QOR {
namespace {

template <class Range>
bool contains(const Range& range, std::string_view text) {
    return std::find(std::begin(range), std::end(range), text) != std::end(range);
}

std::string_view nameOf(std::string_view word) {
    return word;
}
std::string_view nameOf(const QORVocValueRule& rule) {
    return rule.key;
}
std::string_view nameOf(const QORVocCategoryRule& rule) {
    return rule.name;
}

/// The rule of that name; null when there is none.
template <class Rules>
auto findRule(const Rules& rules, std::string_view name) {
    const auto found =
        std::find_if(std::begin(rules), std::end(rules), [name](const auto& rule) { return nameOf(rule) == name; });
    return found == std::end(rules) ? nullptr : &*found;
}

template <class Range>
std::string listed(const Range& range, std::string_view beforeLast = ", ") {
    std::string text;
    std::size_t left = std::size(range);
    for (const auto& one : range) {
        if (!text.empty()) text += left == 1 ? beforeLast : ", ";
        text += nameOf(one);
        --left;
    }
    return text;
}

const std::string* valueOf(const QORVocParameter& parameter, std::string_view key) {
    for (const auto& [name, text] : parameter.values) {
        if (name == key) return &text;
    }
    return nullptr;
}

/// Where the lines of a text end, so that the line of a place is found without going through all before it.
class LineIndex {
public:
    LineIndex(std::string_view text, std::uint64_t& steps) : m_steps(steps) {
        for (std::size_t at = text.find('\n'); at != std::string_view::npos; at = text.find('\n', at + 1))
            m_ends.push_back(at);
        m_steps += m_ends.size();
    }
    /// The number, from 1, of the line that the byte is in.
    std::size_t lineAt(std::ptrdiff_t offset) const {
        const auto at = static_cast<std::size_t>(std::max<std::ptrdiff_t>(offset, 0));
        const auto before = [this](std::size_t end, std::size_t byte) {
            ++m_steps;
            return end < byte;
        };
        return 1 +
               static_cast<std::size_t>(std::lower_bound(m_ends.begin(), m_ends.end(), at, before) - m_ends.begin());
    }

private:
    std::uint64_t& m_steps;
    std::vector<std::size_t> m_ends;
};

/// Compares identifiers, and counts it.
struct CountingEqual {
    std::uint64_t* steps;
    bool operator()(const std::string& a, const std::string& b) const {
        ++*steps;
        return a == b;
    }
};
using Identifiers = std::unordered_map<std::string, std::size_t, std::hash<std::string>, CountingEqual>;

Identifiers noIdentifiers(std::uint64_t& steps) {
    return Identifiers(0, std::hash<std::string>(), CountingEqual{&steps});
}

/// Reads one text into a vocabulary of its own.
class FileReader {
public:
    FileReader(std::string_view xml, const std::string& file, std::span<const QORVocCategoryRule> rules,
               std::vector<QORVocMistake>& mistakes, std::uint64_t& steps)
        : m_xml(xml), m_file(file), m_rules(rules), m_mistakes(mistakes), m_steps(steps), m_lines(xml, steps) {}

    bool read(QORVocMap& out) {
        pugi::xml_document document;
        const pugi::xml_parse_result parsed = document.load_buffer(
            m_xml.data(), m_xml.size(), pugi::parse_default | pugi::parse_trim_pcdata, pugi::encoding_utf8);
        if (!parsed) return refuse(parsed.offset, std::string("this is not XML: ") + parsed.description());
        if (!isUtf8(m_xml)) {
            return refuse(static_cast<std::ptrdiff_t>(utf8Prefix(m_xml)), "the text is not UTF-8 from here on");
        }
        const pugi::xml_node root = document.document_element();
        if (std::string_view(root.name()) != "vocabulary") {
            return refuse(root.offset_debug(),
                          "a vocabulary begins with <vocabulary>, not with <" + std::string(root.name()) + ">");
        }
        checkAttributes(root, {});
        for (const pugi::xml_node& node : document.children()) {
            if (isContent(node) && node != root) wrong(node, "nothing may stand behind the vocabulary");
        }
        for (const pugi::xml_node& node : root.children())
            readCategory(node, out);
        return true;
    }

private:
    static bool isContent(const pugi::xml_node& node) {
        return node.type() == pugi::node_element || node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
    }

    bool refuse(std::ptrdiff_t offset, std::string reason) {
        m_mistakes.push_back({m_file, m_lines.lineAt(offset), std::move(reason), true});
        return false;
    }
    void wrong(const pugi::xml_node& node, std::string reason) {
        m_mistakes.push_back({m_file, m_lines.lineAt(node.offset_debug()), std::move(reason), false});
    }

    static std::string describe(const pugi::xml_node& node) {
        if (node.type() != pugi::node_element) return "text " + quoteText(node.value());
        return "element <" + std::string(node.name()) + ">";
    }

    void checkAttributes(const pugi::xml_node& node, std::initializer_list<std::string_view> known,
                         std::span<const std::string_view> more = {}) {
        std::set<std::string_view> seen;
        for (const pugi::xml_attribute& attribute : node.attributes()) {
            const std::string_view name = attribute.name();
            if (!contains(known, name) && !contains(more, name)) {
                wrong(node, "<" + std::string(node.name()) + "> knows no attribute " + quoteText(name));
            } else if (!seen.insert(name).second) {
                wrong(node, "attribute " + quoteText(name) + " is there twice");
            }
        }
    }

    void readCategory(const pugi::xml_node& node, QORVocMap& out) {
        if (!isContent(node)) return;
        if (std::string_view(node.name()) != "category") {
            return wrong(node, "unexpected " + describe(node) + ": a vocabulary holds categories");
        }
        checkAttributes(node, {"name"});
        const std::string name = node.attribute("name").value();
        if (name.empty()) return wrong(node, "a category needs a name");
        const QORVocCategoryRule* const rule = findRule(m_rules, name);
        if (rule == nullptr && !m_rules.empty())
            wrong(node, "unknown category " + quoteText(name) + "; known are " + listed(m_rules, " and "));
        QORVocMap::Category& category = out.category(name);
        for (const pugi::xml_node& child : node.children()) {
            if (!isContent(child)) continue;
            if (std::string_view(child.name()) != "parameter") {
                wrong(child, "unexpected " + describe(child) + ": a category holds parameters");
                continue;
            }
            QORVocParameter parameter = readParameter(child);
            Identifiers& known = m_known.try_emplace(name, noIdentifiers(m_steps)).first->second;
            check(child, parameter, known, rule);
            category.push_back(std::move(parameter));
        }
    }

    QORVocParameter readParameter(const pugi::xml_node& node) {
        QORVocParameter parameter;
        parameter.file = m_file;
        parameter.line = m_lines.lineAt(node.offset_debug());
        for (const pugi::xml_attribute& attribute : node.attributes()) {
            if (std::string_view(attribute.name()) == "id") {
                parameter.id = attribute.value();
            } else {
                parameter.marks.emplace_back(attribute.name());
            }
        }
        for (const pugi::xml_node& child : node.children()) {
            if (!isContent(child)) continue;
            if (child.type() != pugi::node_element) {
                wrong(child, "unexpected " + describe(child) + ": a parameter holds elements");
                continue;
            }
            if (parameter.values.size() == QORVocReader::maxValues) {
                wrong(child, "parameter " + quoteText(parameter.id) + " holds more than " +
                                 std::to_string(QORVocReader::maxValues) + " values; what follows is passed over");
                break;
            }
            readValue(child, parameter);
        }
        return parameter;
    }

    void readValue(const pugi::xml_node& node, QORVocParameter& parameter) {
        checkAttributes(node, {});
        std::string text;
        for (const pugi::xml_node& child : node.children()) {
            if (child.type() == pugi::node_element) {
                wrong(child, "unexpected " + describe(child) + ": <" + std::string(node.name()) + "> holds a text");
            } else if (isContent(child)) {
                text += child.value();
            }
        }
        if (valueOf(parameter, node.name()) != nullptr) {
            return wrong(node, describe(node) + " is there twice; the first counts");
        }
        parameter.values.emplace_back(node.name(), std::move(text));
    }

    /// \param known the identifiers before it in its category
    void check(const pugi::xml_node& node, const QORVocParameter& parameter, Identifiers& known,
               const QORVocCategoryRule* rule) {
        if (parameter.id.empty()) {
            wrong(node, "a parameter needs an id; this one is passed over");
        } else if (!known.emplace(parameter.id, 0).second) {
            wrong(node, "parameter " + quoteText(parameter.id) + " is there twice");
        }
        if (rule == nullptr) return;
        checkAttributes(node, {"id"}, rule->marks);
        for (const QORVocValueRule& value : rule->values) {
            if (!value.required) continue;
            const std::string* const text = valueOf(parameter, value.key);
            if (text == nullptr) {
                wrong(node, quoteText(parameter.id) + " has no <" + std::string(value.key) + ">; it is passed over");
            } else if (text->empty()) {
                wrong(node, "<" + std::string(value.key) + "> of " + quoteText(parameter.id) + " is empty");
            }
        }
        for (const auto& [key, text] : parameter.values)
            checkValue(node, parameter, *rule, key, text);
    }

    void checkValue(const pugi::xml_node& node, const QORVocParameter& parameter, const QORVocCategoryRule& rule,
                    const std::string& key, const std::string& text) {
        const std::string named = "<" + key + "> of " + quoteText(parameter.id);
        const pugi::xml_node child = node.child(key.c_str());
        const QORVocValueRule* const value = findRule(rule.values, key);
        if (value == nullptr) {
            wrong(child,
                  named + ": " + std::string(rule.name) + " has no such value; known are " + listed(rule.values));
            return;
        }
        switch (value->kind) {
            case QORVocValueRule::Kind::Integer:
                if (!parseInt32(text)) wrong(child, named + ": " + quoteText(text) + " is not an integer of 32 bits");
                break;
            case QORVocValueRule::Kind::Word:
                if (!text.empty() && !contains(value->words, text))
                    wrong(child, named + ": unknown " + key + " " + quoteText(text) + ", read as " +
                                     std::string(value->words.front()) + "; known are " + listed(value->words));
                break;
            case QORVocValueRule::Kind::Text:
            case QORVocValueRule::Kind::Reference:  // looked at when all files are there
            case QORVocValueRule::Kind::Unique:
                break;
        }
    }

    std::string_view m_xml;
    const std::string& m_file;
    std::span<const QORVocCategoryRule> m_rules;
    std::vector<QORVocMistake>& m_mistakes;
    std::uint64_t& m_steps;
    LineIndex m_lines;
    std::map<std::string, Identifiers, std::less<>> m_known;  // of each category
};

/// Puts the parameters of one vocabulary on top of another's.
void merge(const QORVocMap& from, QORVocMap& to, std::uint64_t& steps) {
    for (const auto& [name, parameters] : from.categories()) {
        QORVocMap::Category& category = to.category(name);
        Identifiers before = noIdentifiers(steps);
        for (std::size_t at = 0; at < category.size(); ++at)
            before.emplace(category[at].id, at);  // of equal ones the first
        for (const QORVocParameter& parameter : parameters) {
            const auto same = parameter.id.empty() ? before.end() : before.find(parameter.id);
            if (same == before.end()) {
                category.push_back(parameter);
            } else {
                category[same->second] = parameter;
            }
        }
    }
}

}  // namespace

std::string QORVocMistake::text() const {
    return file + ":" + (line == 0 ? std::string() : std::to_string(line) + ":") + " " + reason;
}

QORVocReader::QORVocReader(std::vector<QORVocCategoryRule> rules)
    : m_rules(std::move(rules)), m_vocabulary(makeQORPtr<QORVocMap>()) {}
QORVocReader::~QORVocReader() = default;

bool QORVocReader::readFile(const std::filesystem::path& file) {
    std::error_code error;
    if (std::filesystem::is_directory(file, error)) {
        m_mistakes.push_back({file.string(), 0, "this is a folder", true});
        return false;
    }
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    std::string text(maxBytes + 1, '\0');  // one more tells that there is more
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));
    if (!stream.is_open() || stream.bad()) {
        m_mistakes.push_back({file.string(), 0, std::string("cannot be read: ") + std::strerror(errno), true});
        return false;
    }
    return readText(text, file.string());
}

bool QORVocReader::readText(std::string_view xml, const std::string& file) {
    if (xml.size() > maxBytes) {
        m_mistakes.push_back({file, 0, "longer than " + std::to_string(maxBytes) + " bytes", true});
        return false;
    }
    const QORPtr<QORVocMap> own = makeQORPtr<QORVocMap>();
    if (!FileReader(xml, file, m_rules, m_mistakes, m_steps).read(*own)) return false;
    const QORPtr<QORVocMap> together = makeQORPtr<QORVocMap>(*m_vocabulary);
    merge(*own, *together, m_steps);
    m_vocabulary = together;
    return true;
}

const QORVocMap::Category& QORVocReader::parametersOf(std::string_view category) const {
    static const QORVocMap::Category none;
    const auto found = m_vocabulary->categories().find(category);
    return found == m_vocabulary->categories().end() ? none : found->second;
}

void QORVocReader::checkTogether() {
    for (const QORVocCategoryRule& category : m_rules) {
        for (const QORVocValueRule& value : category.values) {
            if (value.kind == QORVocValueRule::Kind::Reference) checkReferences(category, value);
            if (value.kind == QORVocValueRule::Kind::Unique) checkUnique(category, value);
        }
    }
}

void QORVocReader::checkReferences(const QORVocCategoryRule& category, const QORVocValueRule& value) {
    std::set<std::string_view> known;
    for (const QORVocParameter& parameter : parametersOf(value.refersTo))
        known.insert(parameter.id);
    for (const QORVocParameter& parameter : parametersOf(category.name)) {
        const std::string* const referred = valueOf(parameter, value.key);
        if (referred == nullptr || known.contains(*referred)) continue;
        m_mistakes.push_back({parameter.file, parameter.line,
                              "<" + std::string(value.key) + "> of " + quoteText(parameter.id) + ": " +
                                  quoteText(*referred) + " is not among " + std::string(value.refersTo),
                              false});
    }
}

void QORVocReader::checkUnique(const QORVocCategoryRule& category, const QORVocValueRule& value) {
    std::map<std::string, std::string> owners;
    for (const QORVocParameter& parameter : parametersOf(category.name)) {
        const std::string* const text = valueOf(parameter, value.key);
        if (text == nullptr || text->empty()) continue;
        const auto [first, isNew] = owners.emplace(*text, parameter.id);
        if (isNew || first->second == parameter.id) continue;
        m_mistakes.push_back({parameter.file, parameter.line,
                              "<" + std::string(value.key) + "> of " + quoteText(parameter.id) + ": " +
                                  quoteText(*text) + " is that of " + quoteText(first->second) + " already",
                              false});
    }
}

QORPtr<const QORVocMap> QORVocReader::vocabulary() const {
    return m_vocabulary;
}

}  // namespace QOR
