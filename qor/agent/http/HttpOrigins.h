/// \file
/// Web pages of which origins may ask.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/http/HttpTypes.h"

namespace QOR {

/// The origins whose pages a browser lets read answers (CORS). Without any, no answer says anything about it, and
/// browsers keep answers from pages of other origins. Each is named as a whole: a pattern would let in more than
/// somebody meant, and a page that is let in asks with its user's cookie.
class HttpOrigins {
public:
    /// \param origin `https://host` or `https://host:port`, as browsers write it
    /// \throws QORException errBadRequest for anything else, `*` and `null` among them
    void add(const std::string& origin);

    /// What every answer to this request says beside the rest.
    HttpFields fieldsFor(const HttpRequest& head) const;
    /// The answer to a browser's question whether a page may ask at all, which is no question to the application: it
    /// comes without the user's credentials. Nothing when the request is none, or the page is of no listed origin.
    std::optional<HttpReply> preflight(const HttpRequest& head) const;

private:
    bool lists(const HttpRequest& head) const;

    std::vector<std::string> m_origins;
};

}  // namespace QOR
