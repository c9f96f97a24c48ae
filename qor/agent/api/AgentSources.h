/// \file
/// The kinds of records that can be followed and that a timeline is made of, and the views that show them.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "QORLibAgent/QORRecordChanges.h"
#include "agent/api/AgentParameters.h"

namespace QOR {

/// Of static storage.
struct AgentSource {
    std::string_view name;  ///< as requests and answers call it
    QORChangeKind kind;
    std::string_view view;
    std::string_view id;  ///< the view's column that tells one record from another
    bool isNumber;        ///< that column holds numbers, else texts
};

/// By QORChangeKind.
inline constexpr std::array<AgentSource, changeKindCount> agentSources{
    {{"environments", QORChangeKind::Environment, "vEnvironment", "eid", false},
     {"operations", QORChangeKind::Operation, "vOpLog", "id", false},
     {"events", QORChangeKind::Event, "vEventLog", "id", true},
     {"backups", QORChangeKind::Backup, "vBackupInfo", "id", false}}};

/// Those that the list `source` names, each once. \throws AgentProblemException for a name that is none
std::vector<const AgentSource*> sourcesNamed(const AgentParameters& parameters);

/// A value as a condition's text spells it.
std::string literalOf(std::string_view text);

}  // namespace QOR
