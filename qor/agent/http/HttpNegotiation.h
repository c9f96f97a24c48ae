/// \file
/// In what form a client wants what it asked for, and whether it has it already.
#pragma once

#include <string>
#include <string_view>

#include "agent/http/HttpTypes.h"

namespace QOR {

/// Whether the client takes gzip, and would not rather have the plain text (Accept-Encoding, RFC 9110).
bool acceptsGzip(const HttpRequest& request);

/// Whether gzip makes a text of that type smaller without holding it back: events are single and small.
bool isWorthGzip(std::string_view contentType);

/// Bodies below this go as they are.
constexpr std::size_t leastGzip = 1400;

/// A tag by which the same body is known again, whatever it is packed in.
std::string entityTagOf(std::string_view body);

/// Whether the client has what bears this tag (If-None-Match).
bool hasAlready(const HttpRequest& request, std::string_view tag);

/// Makes of a whole reply what the client wants: 304 when it has it, gzip when it takes that and the body is worth it.
void negotiate(const HttpRequest& request, HttpReply& reply);

}  // namespace QOR
