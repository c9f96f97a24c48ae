#include "host/QORRequestNotes.h"

#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessageStore.h"
#include "QORMessage/QORTags.h"
#include "QORQuery/QORCondition.h"

namespace QOR {
namespace {

constexpr std::size_t mostFields = 100;
thread_local QORRequestNotes* notesOfThread = nullptr;

std::string textOf(const QORMessageNode& node) {
    return node.data == nullptr ? std::string() : std::string(node.data, node.size);
}

/// Of a column, or of a function's.
std::string fieldOf(const QORMessageNode& node) {
    if (node.firstChild == nullptr) return textOf(node);
    std::string name;
    for (const QORMessageNode* part = node.firstChild; part != nullptr; part = part->next) {
        for (const QORMessageNode* one = part->firstChild; one != nullptr; one = one->next)
            name += (name.empty() ? "" : " of ") + textOf(*one);
    }
    return name;
}

/// A text is a filter, a tree is a condition.
std::string conditionOf(const QORMessageNode& where, QORRequestNotes::Conditions wanted) {
    const bool masked = wanted == QORRequestNotes::Conditions::Masked;
    if (where.firstChild == nullptr) return masked ? withoutLiterals(textOf(where)) : textOf(where);
    try {
        return printCondition(*where.firstChild, masked ? QORConditionLiterals::Masked : QORConditionLiterals::Shown);
    } catch (const QORException&) {
        return "(no condition)";
    }
}

bool isNameCharacter(char c) {
    return isWordChar(c) || c == '.';
}

/// Characters of the language that stand for themselves.
bool isSign(char c) {
    return isSpaceChar(c) || std::string_view("(),><=+-*/^!").find(c) != std::string_view::npos;
}

/// Where the text ends that begins here; a doubled quote is a part of it.
std::size_t endOfText(std::string_view filter, std::size_t at) {
    const char quote = filter[at];
    for (++at; at < filter.size(); ++at) {
        if (filter[at] != quote) continue;
        if (at + 1 == filter.size() || filter[at + 1] != quote) return at + 1;
        ++at;
    }
    return filter.size();
}

}  // namespace

std::string withoutLiterals(std::string_view filter) {
    std::string masked;
    const auto mask = [&masked] {
        if (!masked.ends_with('?')) masked += '?';
    };
    const auto endOf = [&filter](std::size_t at, auto belongs) {
        while (at < filter.size() && belongs(filter[at]))
            ++at;
        return at;
    };
    for (std::size_t at = 0; at < filter.size();) {
        const char c = filter[at];
        if (c == '\'' || c == '"') {
            at = endOfText(filter, at);
            mask();
        } else if (isAlphaChar(c)) {
            const std::size_t end = endOf(at, isNameCharacter);
            masked.append(filter.substr(at, end - at));
            at = end;
        } else if (isSign(c)) {
            masked += c;
            ++at;
        } else {
            at = isDigitChar(c) ? endOf(at, isDigitChar) : at + 1;
            mask();
        }
    }
    return masked;
}

void QORRequestNotes::asked(std::string_view operatorNamed, const QORBinaryIterator& select) {
    if (conditions == Conditions::Left || !operatorName.empty()) return;
    operatorName = operatorNamed;
    for (const QORMessageNode* part = select.node()->firstChild; part != nullptr; part = part->next) {
        if (part->tag == tag::view) view = textOf(*part);
        if (part->tag == tag::field && fields.size() < mostFields) fields.push_back(fieldOf(*part));
        if (part->tag == tag::where) condition = conditionOf(*part, conditions);
    }
}

QORRequestNotes* QORRequestNotes::current() noexcept {
    return notesOfThread;
}

QORRequestNotesScope::QORRequestNotesScope(QORRequestNotes* notes) noexcept
    : m_before(std::exchange(notesOfThread, notes)) {}

QORRequestNotesScope::~QORRequestNotesScope() {
    notesOfThread = m_before;
}

}  // namespace QOR
