#include "shard/ShardDatabase.h"

#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/QORDBSchema.h"

namespace QOR {

ShardDatabase::ShardDatabase(std::string what, std::string connection)
    : m_what(std::move(what)), m_connection(std::move(connection)) {
    try {
        m_rdbms->configure({.connectionString = m_connection});
    } catch (const AException& error) {
        rethrow(error);
    }
    if (m_rdbms->engine() != ASEngine::PostgreSQL) refuse("is not PostgreSQL's, which alone spreads records");
}

std::vector<QORSchemaRow> ShardDatabase::rows(const std::string& sql, unsigned columns) {
    try {
        QORRdbmsTran tran(*m_rdbms, ASAccess::Read);
        return readRows(*tran, sql, columns);
    } catch (const AException& error) {
        rethrow(error);
    }
}

std::string ShardDatabase::cell(const std::string& sql) {
    const auto found = rows(sql, 1);
    return found.empty() ? std::string() : found.front().front();
}

void ShardDatabase::write(const std::function<void(ASSession&)>& work) {
    try {
        m_rdbms->write(work);
    } catch (const AException& error) {
        rethrow(error);
    }
}

void ShardDatabase::migrate() {
    QORSchemaState state;
    {
        QORRdbmsTran tran(*m_rdbms, ASAccess::Read);
        state = QORDBSchema::inspect(*tran);
    }
    if (state.kind == QORSchemaState::Kind::Foreign)
        refuse("belongs to another program: it holds tables or views that are not this host's");
    if (state.filling) refuse("holds a part of another database: a copy into it has not ended");
    if (state.version > QORDBSchema::currentVersion())
        refuse("has version " + std::to_string(state.version) +
               " of the schema, and this program knows versions up to " +
               std::to_string(QORDBSchema::currentVersion()));
    if (state.version == QORDBSchema::currentVersion()) return;
    write([](ASSession& session) { QORDBSchema::migrate(session); });
}

void ShardDatabase::refuse(const std::string& why) const {
    throw QORException(errFailure, m_what + ' ' + why, QOR_SOURCE_PATH, __LINE__);
}

void ShardDatabase::rethrow(const AException& error) const {
    if (error.text().starts_with(m_what)) throw error;
    throw error.reworded(m_what + ": " + error.text());
}

}  // namespace QOR
