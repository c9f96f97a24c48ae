/// \file
/// Pages and streams of rows. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/api/AgentCall.h"
#include "agent/api/AgentRowsWriter.h"
#include "agent/api/AgentSelect.h"

namespace QOR {

class QORException;

/// In what form an answer leaves.
struct AgentRowsForm {
    AgentFormat format = AgentFormat::Json;
    bool stream = false;  ///< all rows, while they are read
};

/// By the parameter `format`, else by Accept. \throws AgentProblemException 406
AgentRowsForm rowsFormOf(const HttpRequest& request, const AgentParameters& parameters);
bool streamsRows(const HttpRequest& head, const AgentParameters& parameters);

/// Has whoever gives rows write them, and makes the reply: whole, or sent through the request's stream, where a failure
/// behind the first byte breaks the connection.
/// \param give writes everything to the writer; calls what it is handed after each row, with the number of rows so far,
/// and ends when that is false
HttpReply replyWithRows(
    AgentCall& call, const AgentRowsForm& form,
    const std::function<void(AgentRowsWriter& writer, const std::function<bool(std::int64_t rows)>& afterRow)>& give);

/// Asks an operator and gives the rows that it answers.
/// \param columns of the answer \param names what the operator calls them
HttpReply replyOfOperator(AgentCall& call, const AgentParameters& parameters, QORRequestEnvelope& request,
                          std::vector<AgentColumn> columns, std::vector<std::string> names);

/// What an operator's error means over HTTP, whose parameters have been checked before.
/// \param place in the filter that cannot be read, bytes before it, where the operator has told it
[[noreturn]] void refuseAsOperator(AgentCall& call, const QORRequestEnvelope& request, const QORException& error,
                                   const AgentParameters& parameters, std::optional<std::int64_t> place);

/// What a question about a view is made for.
AgentSelectContext selectContext(AgentCall& call, const AgentParameters& parameters, bool all);

/// The same to a writer of somebody else's. \throws QORException for an error of the operator
void giveOperatorRows(AgentCall& call, AgentSelect& select, AgentRowsWriter& writer,
                      const std::function<bool(std::int64_t rows)>& afterRow);

/// The environment that the client stands for itself, as text; empty for none.
std::string currentEidOf(AgentCall& call);

/// GET /v1/views/{view}/rows
HttpReply answerViewRows(AgentCall& call);
/// The same for a view and parameters from elsewhere.
HttpReply viewRows(AgentCall& call, std::string_view view, const AgentParameters& parameters);

}  // namespace QOR
