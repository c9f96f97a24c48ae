#include "QORPager/QORFieldViews.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <utility>

#include "QORLibAgent/QOREnvCache.h"
#include "QORPager/QORFieldGetters.h"

namespace QOR {

namespace {

/// An identifier that is invalid is a missing value.
std::string_view viewIdentifier(const QOREID& eid, QORViewScratch& scratch) {
    if (!eid.isValid()) return {};
    eid.write(scratch.bytes.data());
    return {scratch.bytes.data(), scratch.bytes.size()};
}

std::string_view viewNumber(int number, QORViewScratch& scratch) {
    char* const begin = scratch.bytes.data();
    const auto result = std::to_chars(begin, begin + scratch.bytes.size(), number);
    return {begin, static_cast<std::size_t>(result.ptr - begin)};
}

// A message costs some microseconds, and a filter may read a field from very many environments. So the plain text of
// a member that only the further members can hold is read from there; everything else goes through the message, which
// defines what a path means.

constexpr std::string_view configPath = "env/config/";

bool isPlainText(const QORField& field) {
    const bool hasForm = field.valueType == TValueType::Time || field.valueType == TValueType::Boolean || field.base64;
    return field.valueName.empty() && !hasForm;
}

/// Whether a step of a path means what it says: nothing is passed over, and a number means a tag.
bool isPlainStep(std::string_view name) {
    return !name.empty() && (name.front() < '0' || name.front() > '9');
}

/// Whether the member has a place of its own in a configuration.
bool isKnownMember(std::string_view name) {
    constexpr std::array<std::string_view, 8> names{"name",         "description", "domain", "hostname",
                                                    "architecture", "type",        "os",     "ip"};
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// The steps of the field's path below the further members of a configuration, when only those can hold what the path
/// means, and the value is their plain text.
std::optional<std::string_view> stepsOf(const QORField& field) {
    if (!isPlainText(field)) return std::nullopt;
    std::string_view steps = field.path;
    if (field.getter != getENVValueByPath) {
        if (!steps.starts_with(configPath) && !steps.starts_with(virtualConfigPath)) return std::nullopt;
        steps.remove_prefix(steps.starts_with(configPath) ? configPath.size() : virtualConfigPath.size());
    }
    if (isKnownMember(steps.substr(0, steps.find('/')))) return std::nullopt;
    for (std::size_t at = 0; at <= steps.size(); at = std::min(steps.find('/', at), steps.size()) + 1) {
        if (!isPlainStep(steps.substr(at, steps.find('/', at) - at))) return std::nullopt;
    }
    return steps;
}

const QORInfo* findChild(const QORInfo& parent, std::string_view name) {
    for (const QORInfo& child : parent.children()) {
        if (child.name() == name) return &child;
    }
    return nullptr;
}

/// The parameter that the steps lead to. \param parent set to the one that it is a child of
const QORInfo* follow(std::string_view steps, const QORInfo*& parent) {
    for (;;) {
        const std::size_t slash = steps.find('/');
        const QORInfo* const child = findChild(*parent, steps.substr(0, slash));
        if (child == nullptr || slash == std::string_view::npos) return child;
        parent = child;
        steps.remove_prefix(slash + 1);
    }
}

bool isVirtual(const QORField& field) {
    return field.getter == getENVValueByPath || !std::string_view(field.path).starts_with(configPath);
}

using PlaceOf = const void* (*)(const QOREnv&);

template <QOREnvConfigOf ConfigOf, auto Property>
const void* placeOfConfigValue(const QOREnv& env) {
    return &std::invoke(Property, *(env.*ConfigOf)());
}
template <QOREnvConfigOf ConfigOf, QOREnvMember Member>
const void* placeOfMember(const QOREnv& env) {
    return &(env.*ConfigOf)()->text(Member);
}

/// How the fields of one getter are read.
struct ViewRow {
    QORFieldGetter getter;
    QOREnvView view;
    PlaceOf place = nullptr;
};

template <QOREnvConfigOf ConfigOf, QOREnvMember Member>
constexpr ViewRow configRow{getConfigValue<ConfigOf, Member>, viewConfigValue<ConfigOf, Member>,
                            placeOfMember<ConfigOf, Member>};
template <QOREnvConfigOf ConfigOf, std::size_t... member>
constexpr auto makeConfigRows(std::index_sequence<member...>) {
    constexpr PlaceOf addresses = placeOfConfigValue<ConfigOf, &QOREnvConfig::addresses>;
    return std::array{
        configRow<ConfigOf, static_cast<QOREnvMember>(member)>...,
        ViewRow{getConfigIPText<ConfigOf>, viewConfigIP<ConfigOf>, addresses},
        ViewRow{getConfigIP<ConfigOf>, viewConfigIP<ConfigOf>, addresses},
    };
}
template <QOREnvConfigOf ConfigOf>
constexpr auto configRows = makeConfigRows<ConfigOf>(std::make_index_sequence<envMemberCount>());

constexpr std::array<ViewRow, 7> envRows{{
    {getFieldValueEID, viewEID},
    {getFieldValueParentEID, viewParentEID},
    {getFieldValueParentHostname, viewParentHostname},
    {getFieldValueEmpty, viewEmpty},
    {getFieldValueEnvTitle, viewEnvTitle},
    {getFieldValueEnvState, viewEnvState},
    {getFieldValueEnvTransition, viewEnvTransition},
}};

template <class Rows>
const ViewRow* findRow(const Rows& rows, QORFieldGetter getter) {
    const auto* const found =
        std::find_if(rows.begin(), rows.end(), [getter](const ViewRow& row) { return row.getter == getter; });
    return found == rows.end() ? nullptr : found;
}

const ViewRow* findRow(QORFieldGetter getter) {
    if (const ViewRow* row = findRow(envRows, getter)) return row;
    if (const ViewRow* row = findRow(configRows<configOf>, getter)) return row;
    return findRow(configRows<vconfigOf>, getter);
}

constexpr PlaceOf furtherOfConfig = placeOfConfigValue<configOf, &QOREnvConfig::further>;
constexpr PlaceOf furtherOfVirtualConfig = placeOfConfigValue<vconfigOf, &QOREnvConfig::further>;

}  // namespace

std::string_view viewEID(const QOREnv& env, QORViewScratch& scratch) {
    return viewIdentifier(env.getEID(), scratch);
}

std::string_view viewParentEID(const QOREnv& env, QORViewScratch& scratch) {
    return viewIdentifier(env.getParentEID(), scratch);
}

std::string_view viewParentHostname(const QOREnv& env, QORViewScratch& scratch) {
    const QOREnvCache* const cache = envCache();
    if (!env.getParentEID().isValid() || cache == nullptr) return {};
    scratch.held = cache->getEnvCopy(env.getParentEID());
    return scratch.held == nullptr ? std::string_view()
                                   : fieldView(scratch.held->getConfig()->text(QOREnvMember::Hostname));
}

std::string_view viewEnvTitle(const QOREnv& env, QORViewScratch&) {
    return fieldView(env.getTitle());
}

std::string_view viewEnvState(const QOREnv& env, QORViewScratch& scratch) {
    return viewNumber(env.getStatus().state, scratch);
}

std::string_view viewEnvTransition(const QOREnv& env, QORViewScratch& scratch) {
    return viewNumber(env.getStatus().transition, scratch);
}

std::string_view viewEmpty(const QOREnv&, QORViewScratch&) {
    return {};
}

QORFurtherMember findFurtherMember(const QOREnv& env, const QORField& field) {
    const auto steps = stepsOf(field);
    if (!steps) return {};
    const QORInfo* parent = &(isVirtual(field) ? env.getVirtualConfig() : env.getConfig())->further();
    const QORInfo* const member = follow(*steps, parent);
    // What has members of its own is no text; where the list of its siblings ends is for the message to say.
    if (member == nullptr) return {.isKnown = true};
    if (!member->children().empty()) return {};
    const auto next =
        std::find_if(parent->children().begin() + (member - parent->children().data()) + 1, parent->children().end(),
                     [member](const QORInfo& other) { return other.name() == member->name(); });
    return {true, member->value(), next == parent->children().end()};
}

QOREnvFieldReader::QOREnvFieldReader(const QORField& field) : m_field(&field) {
    if (field.getter == getFieldValueByPath || field.getter == getENVValueByPath) {
        m_steps = stepsOf(field);
        if (m_steps) m_place = isVirtual(field) ? furtherOfVirtualConfig : furtherOfConfig;
    } else if (const ViewRow* row = findRow(field.getter)) {
        m_view = row->view;
        m_place = row->place;
    }
}

std::string_view QOREnvFieldReader::readFurtherMember(const QOREnv& env) const {
    const auto* parent = static_cast<const QORInfo*>(m_place(env));
    const QORInfo* const member = follow(*m_steps, parent);
    return member != nullptr && member->children().empty() ? std::string_view(member->value()) : std::string_view();
}

std::string_view QOREnvFieldReader::readByGetter(const QORArg& row) {
    m_text = m_field->getValue(row);
    return m_text;
}

}  // namespace QOR
