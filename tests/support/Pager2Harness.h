/// \file
/// Runs requests of operator "pager2" in this process, through its factory, against a real SQLite file over ODBC.
#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {

/// The engine's own connection, for setting a database up and for comparing with rows that the engine itself gives.
class DirectDatabase {
public:
    explicit DirectDatabase(const std::filesystem::path& file) {
        if (sqlite3_open(file.c_str(), &m_database) != SQLITE_OK) throw std::runtime_error("sqlite3_open");
        sqlite3_busy_timeout(m_database, 5000);
    }
    ~DirectDatabase() { sqlite3_close(m_database); }
    DirectDatabase(const DirectDatabase&) = delete;
    DirectDatabase& operator=(const DirectDatabase&) = delete;

    void run(const std::string& sql) {
        char* message = nullptr;
        if (sqlite3_exec(m_database, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK) return;
        const std::string text = message != nullptr ? message : "sqlite3_exec";
        sqlite3_free(message);
        throw std::runtime_error(text + " in " + sql);
    }

    /// Rows of texts; nulls as "<null>".
    std::vector<std::vector<std::string>> rows(const std::string& sql) {
        std::vector<std::vector<std::string>> result;
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(m_database, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string(sqlite3_errmsg(m_database)) + " in " + sql);
        }
        while (sqlite3_step(statement) == SQLITE_ROW) {
            auto& row = result.emplace_back();
            for (int column = 0; column < sqlite3_column_count(statement); ++column) {
                const auto* text = sqlite3_column_text(statement, column);
                const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
                row.push_back(text == nullptr ? "<null>" : std::string(reinterpret_cast<const char*>(text), size));
            }
        }
        sqlite3_finalize(statement);
        return result;
    }

private:
    sqlite3* m_database = nullptr;
};

inline QORClientContextPtr fullAccess() {
    auto context = std::make_shared<QORClientContext>();
    context->fullAccess = true;
    return context;
}

/// A client without full access. \param sids the first is its own identity
inline QORClientContextPtr restricted(const std::vector<QORLocalSID>& sids) {
    auto context = std::make_shared<QORClientContext>();
    QORSIDPtr own;
    QORToken::SidSet others;
    for (const QORLocalSID& sid : sids) {
        auto shared = std::make_shared<QORLocalSID>(sid);
        if (!own) {
            own = std::move(shared);
        } else {
            others.insert(std::move(shared));
        }
    }
    context->token = std::make_shared<QORToken>(std::move(own), std::move(others));
    return context;
}

/// One client of "pager2".
class Pager2Client {
public:
    Pager2Client() : m_factory(QOROpFactoryRegistry::instance().find("pager2")) {
        if (!m_factory) throw std::runtime_error("no factory of pager2");
        m_operator = m_factory->newOperator();
        m_operator->init();
        m_accesser = m_factory->newAccesser(m_operator);
    }

    /// \param body the select element in message notation \returns the answer in message notation
    std::string ask(std::string_view body, const QORClientContextPtr& as = fullAccess()) {
        const QORClientContextScope scope(as);
        QORMessage request;
        readElement(body, request);
        QORMessage response;
        QORBinaryIterator in = request.root();
        in.firstChild();
        QORBinaryIterator out = response.root();
        m_accesser->request("select", &in, &out);
        std::string text;
        writeResponse(response, text);
        return text;
    }

private:
    QORPtr<QOROpFactory> m_factory;
    QORPtr<QOROperatorPrototype> m_operator;
    QORPtr<QORAccesserPrototype> m_accesser;
};

/// The answer with tag names replaced by their numbers, so that expectations may be written with names.
inline std::string normalized(std::string_view answer) {
    const QORResponse response = readResponse(answer);
    std::string text;
    writeResponse(response.response, text);
    if (response.error) {
        std::string error;
        writeErrorResponse(response.error->code, response.error->message, error);
        text += " error " + error;
    }
    return text;
}

/// The values of a result, row by row; nulls as "<null>". Throws when the answer holds an error.
inline std::vector<std::vector<std::string>> valuesOf(std::string_view answer) {
    QORResponse response = readResponse(answer);
    if (response.error) throw std::runtime_error(response.error->message);
    std::vector<std::vector<std::string>> rows;
    QORBinaryIterator it = response.response.root();
    if (it.firstChild(tag::rowSet) != 0 || it.firstChild(tag::row) != 0) return rows;
    do {
        auto& row = rows.emplace_back();
        QORBinaryIterator cell = it;
        if (cell.firstChild(tag::value) != 0) continue;
        do {
            std::string text;
            row.push_back(cell.getValue(text) == 0 ? text : "<null>");
        } while (cell.nextSibling(tag::value) == 0);
    } while (it.nextSibling(tag::row) == 0);
    return rows;
}

/// Points the process's database at the file.
inline void openDatabase(const std::filesystem::path& file, bool readOnly = false) {
    ASDatabaseOptions options;
    options.connectionString = "Driver=SQLite3;Database=" + file.string();
    options.readOnly = readOnly;
    options.busyTimeoutMs = 200;
    QORRdbms::instance().configure(options);
}

}  // namespace QOR::test
