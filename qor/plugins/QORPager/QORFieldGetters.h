/// \file
/// How the values of fields are read from rows. Every getter has the form of QORFieldGetter: single values ignore the
/// index and leave `last` alone, lists and messages set it. What cannot be found is the empty text, whatever the
/// reason; no getter throws for a row of another kind.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "QORPager/QORArg.h"
#include "QORPager/QORField.h"
#include "QORPager/QORFieldViews.h"

namespace QOR {

class QORMessageIterator;

/// Paths below this one are read from the virtual configuration itself.
inline constexpr std::string_view virtualConfigPath = "env/virtual_config/";

/// A value that may be missing, as text.
inline std::string fieldText(const std::optional<std::string>& value) {
    return value ? *value : std::string();
}
inline std::string fieldText(const std::string& value) {
    return value;
}
/// An identifier that is invalid is a missing value.
inline std::string fieldText(const QOREID& eid) {
    return eid.isValid() ? eid.toString() : std::string();
}

// ---- environments ---------------------------------------------------------------------------------------------------

inline constexpr QORFieldGetter getFieldValueEID = getFieldValueOfView<viewEID>;
inline constexpr QORFieldGetter getFieldValueParentEID = getFieldValueOfView<viewParentEID>;
inline constexpr QORFieldGetter getFieldValueParentHostname = getFieldValueOfView<viewParentHostname>;
inline constexpr QORFieldGetter getFieldValueEnvTitle = getFieldValueOfView<viewEnvTitle>;
inline constexpr QORFieldGetter getFieldValueEnvState = getFieldValueOfView<viewEnvState>;
inline constexpr QORFieldGetter getFieldValueEnvTransition = getFieldValueOfView<viewEnvTransition>;

/// Members of a configuration.
template <QOREnvConfigOf ConfigOf, QOREnvMember Member>
inline constexpr QORFieldGetter getConfigValue = getFieldValueOfView<viewConfigValue<ConfigOf, Member>>;

/// The address at the index.
std::string getIP(const std::optional<std::vector<std::string>>& addresses, bool& last, int index);

template <QOREnvConfigOf ConfigOf>
std::string getConfigIP(const QORArg& row, const QORField*, bool& last, int index) {
    last = true;
    if (row.env() == nullptr) return {};
    return getIP((row.env()->*ConfigOf)()->addresses(), last, index);
}

/// The first address.
template <QOREnvConfigOf ConfigOf>
inline constexpr QORFieldGetter getConfigIPText = getFieldValueOfView<viewConfigIP<ConfigOf>>;

inline constexpr QORFieldGetter getFieldValueConfigName = getConfigValue<configOf, QOREnvMember::Name>;
inline constexpr QORFieldGetter getFieldValueConfigDescription = getConfigValue<configOf, QOREnvMember::Description>;
inline constexpr QORFieldGetter getFieldValueConfigDomain = getConfigValue<configOf, QOREnvMember::Domain>;
inline constexpr QORFieldGetter getFieldValueConfigHostname = getConfigValue<configOf, QOREnvMember::Hostname>;
inline constexpr QORFieldGetter getFieldValueConfigArchitecture = getConfigValue<configOf, QOREnvMember::Architecture>;
inline constexpr QORFieldGetter getFieldValueConfigType = getConfigValue<configOf, QOREnvMember::Type>;
inline constexpr QORFieldGetter getFieldValueConfigOSname = getConfigValue<configOf, QOREnvMember::OsName>;
inline constexpr QORFieldGetter getFieldValueConfigOSplatform = getConfigValue<configOf, QOREnvMember::OsPlatform>;
inline constexpr QORFieldGetter getFieldValueConfigOSversion = getConfigValue<configOf, QOREnvMember::OsVersion>;
inline constexpr QORFieldGetter getFieldValueConfigOSkernel = getConfigValue<configOf, QOREnvMember::OsKernel>;
inline constexpr QORFieldGetter getFieldValueConfigIPText = getConfigIPText<configOf>;
inline constexpr QORFieldGetter getFieldValueConfigIP = getConfigIP<configOf>;

inline constexpr QORFieldGetter getFieldValueVConfigName = getConfigValue<vconfigOf, QOREnvMember::Name>;
inline constexpr QORFieldGetter getFieldValueVConfigDescription = getConfigValue<vconfigOf, QOREnvMember::Description>;
inline constexpr QORFieldGetter getFieldValueVConfigDomain = getConfigValue<vconfigOf, QOREnvMember::Domain>;
inline constexpr QORFieldGetter getFieldValueVConfigHostname = getConfigValue<vconfigOf, QOREnvMember::Hostname>;
inline constexpr QORFieldGetter getFieldValueVConfigArchitecture =
    getConfigValue<vconfigOf, QOREnvMember::Architecture>;
inline constexpr QORFieldGetter getFieldValueVConfigType = getConfigValue<vconfigOf, QOREnvMember::Type>;
inline constexpr QORFieldGetter getFieldValueVConfigOSname = getConfigValue<vconfigOf, QOREnvMember::OsName>;
inline constexpr QORFieldGetter getFieldValueVConfigOSplatform = getConfigValue<vconfigOf, QOREnvMember::OsPlatform>;
inline constexpr QORFieldGetter getFieldValueVConfigOSversion = getConfigValue<vconfigOf, QOREnvMember::OsVersion>;
inline constexpr QORFieldGetter getFieldValueVConfigOSkernel = getConfigValue<vconfigOf, QOREnvMember::OsKernel>;
inline constexpr QORFieldGetter getFieldValueVConfigIPText = getConfigIPText<vconfigOf>;
inline constexpr QORFieldGetter getFieldValueVConfigIP = getConfigIP<vconfigOf>;

// ---- messages and info documents ------------------------------------------------------------------------------------

/// Reads a field at its path from where the cursor stands. \param it may be null; moved
/// \param last set to whether the node has no further sibling of its name \param index counts such siblings from 0
std::string getValueFromMessage(const std::shared_ptr<QORMessageIterator>& it, const QORField& field, bool& last,
                                int index);
/// By path from the root of the row's message.
std::string getFieldValueByPath(const QORArg& row, const QORField* field, bool& last, int index);
/// By path from the virtual configuration.
std::string getENVValueByPath(const QORArg& row, const QORField* field, bool& last, int index);
/// The parameter at the field's path of the row's info document.
std::string getFieldValueParameter(const QORArg& row, const QORField* field, bool& last, int index);

// ---- any row --------------------------------------------------------------------------------------------------------

/// Always empty, even of rows that have no environment.
inline constexpr QORFieldGetter getFieldValueEmpty = getFieldValueOfView<viewEmpty>;
std::string getTrueFieldValue(const QORArg& row, const QORField* field, bool& last, int index);
/// The parameter "task_id" of the row's info document.
std::string getFieldValueActionsTaskID(const QORArg& row, const QORField* field, bool& last, int index);

// ---- operation log --------------------------------------------------------------------------------------------------

std::string getActionTime(const QORProgressArg& row);
std::string getActionId(const QORProgressArg& row);
std::string getActionParentId(const QORProgressArg& row);
std::string getActionOp(const QORProgressArg& row);
std::string getActionStatus(const QORProgressArg& row);
std::string getActionMessage(const QORProgressArg& row);
std::string getActionOriginEID(const QORProgressArg& row);
std::string getActionOriginType(const QORProgressArg& row);
std::string getActionOriginTitle(const QORProgressArg& row);

template <auto Accessor>
std::string getFieldValueImplActionsT(const QORArg& row, const QORField*, bool&, int) {
    const auto* const action = dynamic_cast<const QORProgressArg*>(&row);
    return action == nullptr ? std::string() : Accessor(*action);
}

/// The operation's message as a message in its usual text form.
std::string getFieldValueActionsMessageXML(const QORArg& row, const QORField* field, bool& last, int index);
/// The environment at the index of those that the operation touches.
std::string getFieldValueActionsEIDList(const QORArg& row, const QORField* field, bool& last, int index);

// ---- event log ------------------------------------------------------------------------------------------------------

std::string getFieldValueEventTime(const QORArg& row, const QORField* field, bool& last, int index);
std::string getFieldValueEventOriginEID(const QORArg& row, const QORField* field, bool& last, int index);
std::string getFieldValueEventOriginType(const QORArg& row, const QORField* field, bool& last, int index);
std::string getFieldValueEventOriginTitle(const QORArg& row, const QORField* field, bool& last, int index);
std::string getFieldValueEventSource(const QORArg& row, const QORField* field, bool& last, int index);
std::string getFieldValueEventCategory(const QORArg& row, const QORField* field, bool& last, int index);
std::string getFieldValueEventInfo(const QORArg& row, const QORField* field, bool& last, int index);

}  // namespace QOR
