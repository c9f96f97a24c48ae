/// \file
/// How the fields of environments are read without copying: a value that lies in an environment is looked at where it
/// is. The getters of such fields are made from these views, so that a value is read in one way only.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "QORPager/QORArg.h"
#include "QORPager/QORField.h"

namespace QOR {

/// Room for a value that does not lie in the environment as text, and what keeps one alive that lies elsewhere.
struct QORViewScratch {
    std::array<char, 36> bytes;
    QORPtr<const QOREnv> held;
};

/// The first value of a field; a missing one is the empty text. It lives as long as the environment and until the
/// scratch is used again.
using QOREnvView = std::string_view (*)(const QOREnv& env, QORViewScratch& scratch);

/// Which of an environment's configurations is read.
using QOREnvConfigOf = const QORPtr<const QOREnvConfig>& (QOREnv::*)() const noexcept;

inline constexpr QOREnvConfigOf configOf = &QOREnv::getConfig;
inline constexpr QOREnvConfigOf vconfigOf = &QOREnv::getVirtualConfig;

/// A value that may be missing.
inline std::string_view fieldView(const std::optional<std::string>& value) noexcept {
    return value ? std::string_view(*value) : std::string_view();
}

std::string_view viewEID(const QOREnv& env, QORViewScratch& scratch);
std::string_view viewParentEID(const QOREnv& env, QORViewScratch& scratch);
/// The host name of the parent, when the client may see the parent.
std::string_view viewParentHostname(const QOREnv& env, QORViewScratch& scratch);
std::string_view viewEnvTitle(const QOREnv& env, QORViewScratch& scratch);
std::string_view viewEnvState(const QOREnv& env, QORViewScratch& scratch);
std::string_view viewEnvTransition(const QOREnv& env, QORViewScratch& scratch);
std::string_view viewEmpty(const QOREnv& env, QORViewScratch& scratch);

/// A member of a configuration that only its further members can hold.
struct QORFurtherMember {
    bool isKnown = false;  ///< false: the field's path may mean something else, which its message tells
    std::string_view text = {};
    bool last = true;  ///< no sibling behind it has its name
};
QORFurtherMember findFurtherMember(const QOREnv& env, const QORField& field);

/// A member of a configuration.
template <QOREnvConfigOf ConfigOf, QOREnvMember Member>
std::string_view viewConfigValue(const QOREnv& env, QORViewScratch&) {
    return fieldView((env.*ConfigOf)()->text(Member));
}

/// The first address of a configuration.
template <QOREnvConfigOf ConfigOf>
std::string_view viewConfigIP(const QOREnv& env, QORViewScratch&) {
    const auto& addresses = (env.*ConfigOf)()->addresses();
    return addresses && !addresses->empty() ? std::string_view(addresses->front()) : std::string_view();
}

/// The getter of a field whose only value a view finds.
template <QOREnvView View>
std::string getFieldValueOfView(const QORArg& row, const QORField*, bool&, int) {
    QORViewScratch scratch;
    return row.env() == nullptr ? std::string() : std::string(View(*row.env(), scratch));
}

/// An environment that fields are read from, as a row where only a getter reads it. Refers to the handle.
class QOREnvRow {
public:
    explicit QOREnvRow(const QORPtr<const QOREnv>& env) noexcept : m_env(env) {}
    const QOREnv& env() const noexcept { return *m_env; }
    /// The same row for all fields, so that its message is made once.
    const QORArg& arg() {
        if (!m_arg) m_arg.emplace(m_env);
        return *m_arg;
    }

private:
    const QORPtr<const QOREnv>& m_env;
    std::optional<QORArg> m_arg;
};

/// Reads one field from environment after environment. Refers to the field.
class QOREnvFieldReader {
public:
    explicit QOREnvFieldReader(const QORField& field);

    /// The first value; it lives as long as the environment and until the next call. Allocates only for a value that
    /// does not lie in the environment.
    std::string_view read(QOREnvRow& row) {
        if (m_steps) return readFurtherMember(row.env());
        return m_view != nullptr ? m_view(row.env(), m_scratch) : readByGetter(row.arg());
    }
    /// Where the value is going to be read, for those who fetch ahead: an address in what the environment points to.
    /// Null when it is the environment itself, or not known.
    const void* place(const QOREnv& env) const { return m_place == nullptr ? nullptr : m_place(env); }
    /// Whether the value is among the further members of the configuration at the place.
    bool isFurtherMember() const noexcept { return m_steps.has_value(); }

private:
    std::string_view readFurtherMember(const QOREnv& env) const;
    std::string_view readByGetter(const QORArg& row);

    const QORField* m_field;
    QOREnvView m_view = nullptr;
    const void* (*m_place)(const QOREnv&) = nullptr;
    std::optional<std::string_view> m_steps;  ///< of the path below the further members, for a field that is one
    QORViewScratch m_scratch;
    std::string m_text;
};

}  // namespace QOR
