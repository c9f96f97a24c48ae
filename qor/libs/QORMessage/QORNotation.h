/// \file
/// Message notation: messages as JSON for tools, tests and clients.
///
/// An element is a nested array, order kept: `[tag, "text"]` with a text, `[tag, {"base64": "..."}]` with a binary
/// value, `[tag, [element, ...]]` with children, `[tag]` with neither. Tags are numbers; on input a known name may
/// stand for its number. A text whose bytes are not UTF-8 is written as base64 too. `[tag, []]` is read as `[tag]`.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"
#include "QORMessage/QORAnswer.h"
#include "QORMessage/QORMessage.h"

namespace QOR {

/// The identity that a request asks to be run as, `"client"` of the envelope.
struct QORClientDescription {
    struct Sid {
        int principalId = 0;
        int principalType = 0;
        QOREID eid;  ///< invalid when the text was absent or null
    };
    bool fullAccess = false;
    std::vector<Sid> sids;  ///< the first is the client's own identity, the others its set
};

/// One request as it travels:
/// `{"operator":"pager2","request":"select","body":[1740,[...]],"client":{...}}`.
struct QORRequestEnvelope {
    std::string operatorName;
    std::string requestName;
    QORMessage body;                             ///< the body is the root's only child
    std::optional<QORClientDescription> client;  ///< absent: run as the connection's own identity
};

/// Reads one request. Iterative; nothing of the input is trusted. "operator", "request" and "body" must be there, in
/// any order. Of an identity "eid" may be absent, null or empty, and principals that are absent are 0.
/// \throws QORException 400 naming what is wrong and the byte offset where (bad JSON, unknown member or tag name,
///         a member that is missing or given twice, a limit of the message that was exceeded)
QOR_API QORRequestEnvelope readRequest(std::string_view json, const QORMessageLimits& limits = {});

/// Writes a request envelope in one line, without a line end.
QOR_API void writeRequest(const QORRequestEnvelope& request, std::string& out);

/// Reads one element and appends it below the root; the message is unchanged when it cannot be read.
/// \throws as readRequest
QOR_API void readElement(std::string_view json, QORMessage& out);

/// Writes the element `node` (or, for a root, its children one after the other, separated by commas).
QOR_API void writeElement(const QORMessageNode& node, std::string& out);

/// Takes the next block of a text that is written in blocks; the view is valid only during the call.
using QORTextSink = std::function<void(std::string_view)>;

/// Writes an answer, `{"response":[element, ...]}`, in one line without a line end. Error entries (elements
/// tag::error that hold a tag::errorCode) are lifted out of the tree, at whatever depth, into the member
/// "error": {"code":n,"message":"..."}; the first one is taken.
QOR_API void writeResponse(const QORMessage& response, std::string& out);
/// The same in blocks of about 64 KiB, for answers that should not be in memory twice.
QOR_API void writeResponse(const QORMessage& response, const QORTextSink& sink);

/// The same, piece by piece, for an answer that leaves while it is written: in blocks of about 256 KiB, or when
/// flushed. Once the output takes no more, nothing is handed over.
QOR_API std::unique_ptr<QORAnswerFormat> makeNotationAnswer(QORAnswerOutput output);

/// Appends the text as notation writes it: a JSON string, or `{"base64":"..."}` where its bytes are not UTF-8.
QOR_API void writeNotationText(std::string_view text, std::string& out);

/// An answer as a client reads it.
struct QORResponse {
    struct Error {
        int code;
        std::string message;
    };
    QORMessage response;  ///< the elements, without error entries
    std::optional<Error> error;
};

/// \throws QORException 400 as readRequest
QOR_API QORResponse readResponse(std::string_view json, const QORMessageLimits& limits = {});

/// Writes the answer to a request that never reached an operator: no elements, one error.
QOR_API void writeErrorResponse(int code, std::string_view message, std::string& out);

}  // namespace QOR
