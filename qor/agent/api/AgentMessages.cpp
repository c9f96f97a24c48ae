#include "agent/api/AgentMessages.h"

#include <utility>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

HttpReply replyOf(QORRouter::Answer answer) {
    HttpReply reply{answer.readable ? 200U : 400U, std::move(answer.text)};
    reply.memory = std::move(answer.memory);
    return reply;
}

}  // namespace

HttpReply answerMessage(AgentCall& call) {
    const HttpRequest& request = call.request;
    if (!call.parameters.flag("stream")) return replyOf(call.host.router().answer(call.session(), request.body));
    QORRouter::Streamed streamed = call.host.router().stream(
        call.session(), request.body, [&](std::string_view piece) { return request.stream->send(piece); });
    if (!streamed.whole) throw QORException(errFailure, "the answer broke off in the middle");
    return replyOf(std::move(streamed.answer));
}

bool streamsMessage(const HttpRequest&, const AgentParameters& parameters) {
    return parameters.flag("stream");
}

}  // namespace QOR
