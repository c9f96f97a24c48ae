/// \file
/// What would become of a question. Thread-safe.
#pragma once

#include "agent/api/AgentCall.h"

namespace QOR {

/// POST /v1/explain: a body as POST /v1/query takes it, answered by QORExplanation::json(). Nothing of the question is
/// run. Who has full access is told statements, plans and estimates; others are told what follows from the question and
/// their rights alone.
HttpReply answerExplain(AgentCall& call);

}  // namespace QOR
