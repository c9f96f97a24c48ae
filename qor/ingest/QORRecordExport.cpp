#include "ingest/QORRecordExport.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORLibAgent/QORPageToken.h"
#include "QORLibAgent/QORRecordChanges.h"
#include "QORLibAgent/QORRecordState.h"
#include "QORServers/QORServers.h"
#include "ingest/ExportReader.h"
#include "ingest/RecordLines.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

constexpr int errNothingToExport = 404;

QORChangeKind changeKindOf(QORRecordKind kind) {
    constexpr std::array<QORChangeKind, recordKindCount> changeKinds{
        QORChangeKind::Environment, QORChangeKind::Operation, QORChangeKind::Event, QORChangeKind::Backup};
    return changeKinds[static_cast<std::size_t>(kind)];
}

std::optional<ExportOwners> ownersOf(const QORExportQuestion& question, const QORRowAccess& access) {
    if (access.isFull() && !question.environment.isValid()) return std::nullopt;
    ExportOwners owners;
    if (!question.environment.isValid()) {
        owners.environments.assign(access.owners().begin(), access.owners().end());
    } else if (access.sees(question.environment)) {
        owners.environments.push_back(question.environment);
    }
    std::vector<std::string> names;
    for (const QOREID& eid : owners.environments)
        names.push_back(eid.toString());
    owners.list = recordList(names);
    return owners;
}

}  // namespace

struct QORRecordExport::Impl {
    Impl(QORExportPosition from, const QORRowAccess& access)
        : position(std::move(from)), kinds(position.kinds()), owners(ownersOf(position.question, access)) {
        QORRdbmsTran tran(ASAccess::Read);
        if (!keepsRecordChanges(*tran))
            throw QORException(errNothingToExport,
                               "the database is another program's, or of an older version and only read: there is "
                               "nothing in it that can be exported",
                               QOR_SOURCE_PATH, __LINE__);
        const std::string here = databaseMark();
        if (!position.database.empty() && !here.empty() && position.database != here)
            throw QORException(errBadRequest,
                               "the position is one of database " + quoteText(position.database) + ", and this is " +
                                   quoteText(here) + "; begin the export anew",
                               QOR_SOURCE_PATH, __LINE__);
        position.database = here;
        if (!position.kind) position.kind = kinds.front();
        if (!position.begun && isCounted()) countAll(*tran, access);
    }

    std::string next() {
        if (ended) return {};
        if (!std::exchange(position.begun, true)) return positionLine();
        do {
            const ExportPiece piece = nextPiece();
            take(piece);
            if (!piece.lines.empty() || !piece.atEnd) return piece.lines + positionLine();
        } while (advance());
        ended = true;
        return std::string(exportEndBegin) + position.countsText() + "}\n";
    }

    QORExportPosition position;
    bool ended = false;

private:
    std::string positionLine() const { return std::string(exportPositionBegin) + position.text() + "}\n"; }

    /// Whether how many they are is known without looking at each.
    bool isCounted() const {
        return !owners && !position.question.from && !position.question.to &&
               QORServers::instance().placement()->none();
    }
    void countAll(ASSession& session, const QORRowAccess& access) {
        position.of = 0;
        for (const QORRecordKind kind : kinds)
            *position.of += static_cast<std::uint64_t>(recordState(session, changeKindOf(kind), access).records);
    }

    ExportPiece nextPiece() const {
        const bool isNobodys = owners && owners->environments.empty();
        return isNobodys || kindEnded ? ExportPiece{.atEnd = true} : readExportPiece(position, owners);
    }
    void take(const ExportPiece& piece) {
        position.counts[static_cast<std::size_t>(*position.kind)] += piece.records;
        position.unreadable += piece.unreadable;
        if (!piece.last.empty()) position.after = piece.last;
        kindEnded = piece.atEnd;
    }
    /// To the next kind. \returns false behind the last
    bool advance() {
        position.after.clear();
        kindEnded = false;
        const auto kind = std::find(kinds.begin(), kinds.end(), *position.kind);
        if (kind == kinds.end() || kind + 1 == kinds.end()) return false;
        position.kind = *(kind + 1);
        return true;
    }

    const std::vector<QORRecordKind> kinds;
    const std::optional<ExportOwners> owners;  ///< whose records alone; nothing: all
    bool kindEnded = false;                    ///< nothing more of the position's kind
};

QORRecordExport::QORRecordExport(QORExportPosition position, const QORRowAccess& access)
    : m_impl(std::make_unique<Impl>(std::move(position), access)) {}
QORRecordExport::~QORRecordExport() = default;

std::string QORRecordExport::next() {
    return m_impl->next();
}

const QORExportPosition& QORRecordExport::position() const noexcept {
    return m_impl->position;
}

}  // namespace QOR
