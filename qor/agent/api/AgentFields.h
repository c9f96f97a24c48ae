/// \file
/// Fields and rows of what the agent has at hand: operator "pager". Thread-safe.
#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "agent/api/AgentCall.h"
#include "agent/api/AgentSelect.h"

namespace QOR {

/// The fields as the operator's plug-in lists them, which the agent's configuration settles once.
class AgentFields {
public:
    /// \throws AgentProblemException 503 while no plug-in has the operator
    const std::vector<QOROpField>& all();
    /// The field of that name, or the prefix that it begins with; null for none.
    const QOROpField* find(std::string_view name);
    /// The name most like this one; empty where none is like it.
    std::string nearest(std::string_view name);

private:
    std::mutex m_mutex;
    std::vector<QOROpField> m_fields;  // guarded by m_mutex until it is filled, then unchanging
};

inline constexpr std::array sourceRowsParameters{
    AgentParameter{.name = "fields",
                   .kind = AgentParameter::Kind::List,
                   .meaning = "names of fields, all of one source",
                   .required = true},
    AgentParameter{.name = "where", .meaning = "a filter in the language of \"pager\": pager.op_log.status != 0"},
    AgentParameter{.name = "sort",
                   .kind = AgentParameter::Kind::List,
                   .meaning = "the fields that rows are sorted by, behind `-` from the greatest on"},
    limitParameter,
    offsetParameter,
    afterParameter,
    countParameter,
    formatParameter,
};

/// `{"fields":[{"name":"pager.op_log.id","source":"operations","type":"text","list":false,"prefix":false},...]}`
HttpReply answerFields(AgentCall& call);

/// The question of operator "pager" that the parameters ask. \param all rows, where there is no limit
AgentSelect sourceSelect(AgentCall& call, const AgentParameters& parameters, bool all);

/// GET /v1/rows
HttpReply answerSourceRows(AgentCall& call);
/// The same for parameters from elsewhere.
HttpReply sourceRows(AgentCall& call, const AgentParameters& parameters);

}  // namespace QOR
