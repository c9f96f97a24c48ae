/// \file
/// Requests that bring records under a key, and what has become of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ingest/QORIngest.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// What is known of one request, kept in the database and written in the same transactions as its records: a request
/// that is sent again, because its answer was lost, goes on where it was broken off, and one that was done gets the
/// answer that it got. Forgotten after a day, or when ten thousand others have come since.
///
/// Where several servers keep records, home knows what has been acknowledged, and each server how far it is itself and
/// what has become of its part since.
class RequestLedger {
public:
    /// \param request whose key has been checked
    explicit RequestLedger(const QORIngestRequest& request) : RequestLedger(request.key, request.digest) {}
    RequestLedger(std::string key, std::string digest) : m_key(std::move(key)), m_digest(std::move(digest)) {}

    /// Waits until nobody else is at work on the request, and keeps others waiting until the transaction ends.
    void lock(ASSession& session) const;
    /// What has become of the request so far; nothing when it is new. `lastLine` is the line up to which it is stored.
    /// \throws QORException 422 when the key belongs to a request with another content
    std::optional<QORIngestResult> find(ASSession& session) const;
    /// Notes what has become of it. \param isNew it was not found
    void put(ASSession& session, const QORIngestResult& result, bool isNew) const;

private:
    std::string m_key;
    std::string m_digest;
};

}  // namespace QOR
