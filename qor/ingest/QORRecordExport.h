/// \file
/// Records on their way out: what is stored as lines of NDJSON that QORIngest takes in, from a position on.
///
/// Beside records an export has lines of its own, which QORRecordParser::isAside() tells from them: positions,
/// {"position":{...}}, and as its last line {"end":{...}}, with how many records of each kind there are before it. Who
/// has the lines up to a position has all that comes before it, and may have the rest made at any time.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "QORLibAgent/QORSecurity.h"
#include "ingest/QORExportPosition.h"

namespace QOR {

/// How the lines begin that are no records, and those that are.
inline constexpr std::string_view exportPositionBegin = R"({"position":)";
inline constexpr std::string_view exportEndBegin = R"({"end":)";
inline constexpr std::string_view exportRecordBegin = R"({"kind":)";

/// Makes an export in pieces of about a megabyte, each as the database is then: what is stored meanwhile may be in it.
/// Environments come first, by their identifiers, then the other kinds in the order of their arrival, whichever server
/// keeps them: a position means the same while environments are handed over. Used by one thread at a time, which holds
/// nothing of the database between pieces.
class QORRecordExport {
public:
    /// \param access whose records are exported
    /// \throws QORException 404 for a database that is none of this host's, or of an older version that is only
    /// read; errBadRequest for a position of another database; AException
    QORRecordExport(QORExportPosition position, const QORRowAccess& access);
    ~QORRecordExport();
    QORRecordExport(const QORRecordExport&) = delete;
    QORRecordExport& operator=(const QORRecordExport&) = delete;

    /// The next lines, of which the last is a position or the end; empty behind the end. Where few of many records are
    /// wanted it may be a position alone, behind records that are not.
    /// \throws AException, and QORException errDeadline; of a server with its name. The position stays
    std::string next();
    /// Behind what was given.
    const QORExportPosition& position() const noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
