#include "postgresql/ByHand.h"

#include <libpq-fe.h>
#include <sql.h>
#include <sqlext.h>

#include <array>
#include <cctype>
#include <utility>

#include "support/Figures.h"

namespace QOR::bench {
namespace {

class Driver : public ByHand {
public:
    Driver(std::string connection, std::string sql, std::vector<Given> given, std::size_t columns)
        : m_given(std::move(given)), m_columns(columns) {
        SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &m_environment);
        SQLSetEnvAttr(m_environment, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
        SQLAllocHandle(SQL_HANDLE_DBC, m_environment, &m_connection);
        succeed(SQLDriverConnect(m_connection, nullptr, chars(connection), SQL_NTS, nullptr, 0, nullptr,
                                 SQL_DRIVER_NOPROMPT));
        SQLAllocHandle(SQL_HANDLE_STMT, m_connection, &m_statement);
        succeed(SQLPrepare(m_statement, chars(sql), SQL_NTS));
        for (std::size_t i = 0; i < m_given.size(); ++i)
            bindParameter(i);
        for (std::size_t i = 0; i < m_columns.size(); ++i) {
            succeed(SQLBindCol(m_statement, static_cast<SQLUSMALLINT>(i + 1), SQL_C_CHAR, m_columns[i].text.data(),
                               static_cast<SQLLEN>(m_columns[i].text.size()), &m_columns[i].length));
        }
    }
    ~Driver() override {
        SQLFreeHandle(SQL_HANDLE_STMT, m_statement);
        SQLDisconnect(m_connection);
        SQLFreeHandle(SQL_HANDLE_DBC, m_connection);
        SQLFreeHandle(SQL_HANDLE_ENV, m_environment);
    }
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    std::int64_t run(const std::vector<Given>& given) override {
        std::int64_t rows = 0;
        each(given, [&] { ++rows; });
        return rows;
    }
    Rows rows(const std::vector<Given>& given) override {
        Rows rows;
        each(given, [&] {
            auto& row = rows.emplace_back();
            for (const Column& column : m_columns)
                row.emplace_back(column.length < 0 ? "" : column.text.data());
        });
        return rows;
    }

private:
    struct Column {
        std::array<char, 256> text{};
        SQLLEN length = 0;
    };

    static SQLCHAR* chars(std::string& text) { return reinterpret_cast<SQLCHAR*>(text.data()); }
    static void succeed(SQLRETURN rc) { check(SQL_SUCCEEDED(rc), "the driver failed"); }

    void bindParameter(std::size_t index) {
        Given& given = m_given[index];
        const auto place = static_cast<SQLUSMALLINT>(index + 1);
        if (given.isNumber) {
            return succeed(SQLBindParameter(m_statement, place, SQL_PARAM_INPUT, SQL_C_SBIGINT, SQL_BIGINT, 0, 0,
                                            &given.number, 0, nullptr));
        }
        m_texts[index] = SQL_NTS;
        succeed(SQLBindParameter(m_statement, place, SQL_PARAM_INPUT, SQL_C_CHAR, SQL_VARCHAR, given.text.size(), 0,
                                 given.text.data(), 0, &m_texts[index]));
    }

    template <class Take>
    void each(const std::vector<Given>& given, Take take) {
        for (std::size_t i = 0; i < given.size(); ++i) {
            m_given[i].number = given[i].number;
            if (m_given[i].text != given[i].text) {
                m_given[i].text = given[i].text;
                bindParameter(i);
            }
        }
        succeed(SQLExecute(m_statement));
        SQLRETURN rc = SQL_SUCCESS;
        while (SQL_SUCCEEDED(rc = SQLFetch(m_statement)))
            take();
        check(rc == SQL_NO_DATA, "the driver failed at a row");
        SQLFreeStmt(m_statement, SQL_CLOSE);
    }

    SQLHENV m_environment = nullptr;
    SQLHDBC m_connection = nullptr;
    SQLHSTMT m_statement = nullptr;
    std::vector<Given> m_given;
    std::array<SQLLEN, 128> m_texts{};
    std::vector<Column> m_columns;
};

struct Finish {
    void operator()(PGconn* connection) const noexcept { PQfinish(connection); }
    void operator()(PGresult* result) const noexcept { PQclear(result); }
};

class Library : public ByHand {
public:
    Library(const std::string& conninfo, const std::string& sql) : m_connection(PQconnectdb(conninfo.c_str())) {
        const Result result(PQprepare(m_connection.get(), "", sql.c_str(), 0, nullptr));
        check(PQresultStatus(result.get()) == PGRES_COMMAND_OK, PQerrorMessage(m_connection.get()));
    }
    std::int64_t run(const std::vector<Given>& given) override { return PQntuples(result(given).get()); }
    Rows rows(const std::vector<Given>& given) override {
        const Result all = result(given);
        Rows rows;
        for (int row = 0; row < PQntuples(all.get()); ++row) {
            auto& texts = rows.emplace_back();
            for (int column = 0; column < PQnfields(all.get()); ++column)
                texts.emplace_back(PQgetvalue(all.get(), row, column));
        }
        return rows;
    }

private:
    using Result = std::unique_ptr<PGresult, Finish>;

    Result result(const std::vector<Given>& given) {
        std::vector<std::string> texts;
        std::vector<const char*> values;
        for (const Given& one : given)
            texts.push_back(one.isNumber ? std::to_string(one.number) : one.text);
        for (const std::string& text : texts)
            values.push_back(text.c_str());
        Result result(PQexecPrepared(m_connection.get(), "", static_cast<int>(values.size()), values.data(), nullptr,
                                     nullptr, 0));
        check(PQresultStatus(result.get()) == PGRES_TUPLES_OK, PQerrorMessage(m_connection.get()));
        return result;
    }

    std::unique_ptr<PGconn, Finish> m_connection;
};

}  // namespace

std::unique_ptr<ByHand> driverByHand(const std::string& connection, const std::string& sql,
                                     const std::vector<Given>& given, std::size_t columns) {
    return std::make_unique<Driver>(connection, sql, given, columns);
}

std::unique_ptr<ByHand> libraryByHand(const std::string& conninfo, const std::string& sql) {
    return std::make_unique<Library>(conninfo, sql);
}

std::string withMarks(const std::string& sql) {
    std::string marked;
    for (std::size_t at = 0; at < sql.size(); ++at) {
        if (sql[at] != '$') {
            marked += sql[at];
            continue;
        }
        marked += '?';
        while (at + 1 < sql.size() && std::isdigit(static_cast<unsigned char>(sql[at + 1])) != 0)
            ++at;
    }
    return marked;
}

}  // namespace QOR::bench
