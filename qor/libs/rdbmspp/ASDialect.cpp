#include "rdbmspp/ASDialect.h"

namespace QOR {

namespace {

constexpr char sqliteViewColumns[] =
    "SELECT m.name, c.name, c.type FROM sqlite_master AS m JOIN pragma_table_info(m.name) AS c "
    "WHERE m.type = 'view' ORDER BY m.name, c.cid";

constexpr char postgresViewColumns[] =
    "SELECT table_name, column_name, data_type FROM information_schema.columns "
    "WHERE table_schema = current_schema() AND table_name IN "
    "(SELECT table_name FROM information_schema.views WHERE table_schema = current_schema()) "
    "ORDER BY table_name, ordinal_position";

// A bare parameter as a pattern makes SQLite compile the statement again at each execution, because the pattern might
// let it use an index; behind the plus sign, which changes nothing else, it is no bare parameter any more.
//
// SQLite: its parser keeps 100 entries, of which a select itself takes a few; an expression has 1,000 levels.
const ASDialect sqlite{
    .engine = ASEngine::SQLite,
    .name = "SQLite",
    .odbcName = "SQLite",
    .beginRead = "BEGIN",
    .beginWrite = "BEGIN IMMEDIATE",
    .commit = "COMMIT",
    .rollback = "ROLLBACK",
    .like = " LIKE ",
    .likeParameter = "+",
    .noEscape = "",
    .nullsAscending = "",
    .nullsDescending = "",
    .byteOrder = "",
    .streamsWithoutParameters = true,
    .maxParameters = 32766,
    .maxLikePattern = 50000,
    .parserDepth = 100,
    .expressionDepth = 1000,
    .viewColumns = sqliteViewColumns,
};

const ASDialect postgres{
    .engine = ASEngine::PostgreSQL,
    .name = "PostgreSQL",
    .odbcName = "PostgreSQL",
    .beginRead = "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY",
    .beginWrite = "BEGIN",
    .commit = "COMMIT",
    .rollback = "ROLLBACK",
    .like = " ILIKE ",
    .likeParameter = "",
    .noEscape = " ESCAPE ''",
    .nullsAscending = " NULLS FIRST",
    .nullsDescending = " NULLS LAST",
    .byteOrder = " COLLATE \"C\"",
    .streamsWithoutParameters = false,
    .maxParameters = 32767,
    .maxLikePattern = 0,
    .parserDepth = 0,
    .expressionDepth = 0,
    .viewColumns = postgresViewColumns,
};

void appendHex(std::string& out, std::string_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out += digits[value >> 4];
        out += digits[value & 15];
    }
}

// Only texts that begin with a date of the calendar count: SQLite's functions would take a bare number for a Julian
// day, and the 31st of February for a day of March. They do not read an offset without its colon.
std::string sqliteEpochSeconds(std::string_view column) {
    const std::string c(column);
    return "CASE WHEN " + c + " GLOB '[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]*' AND date(substr(" + c +
           ", 1, 10)) = substr(" + c + ", 1, 10) THEN CAST(strftime('%s', CASE WHEN " + c +
           " GLOB '*:*[-+][0-9][0-9][0-9][0-9]' THEN substr(" + c + ", 1, length(" + c + ") - 2) || ':' || substr(" +
           c + ", -2) ELSE " + c + " END) AS INTEGER) END";
}

}  // namespace

const ASDialect& ASDialect::of(ASEngine engine) noexcept {
    return engine == ASEngine::PostgreSQL ? postgres : sqlite;
}

const ASDialect& ASDialect::current() {
    return of(QORRdbms::instance().engine());
}

std::string ASDialect::epochSeconds(std::string_view expression) const {
    if (engine == ASEngine::SQLite) return sqliteEpochSeconds(expression);
    return "CAST(floor(extract(epoch FROM " + std::string(expression) + ")) AS bigint)";
}

// SQLite's own text form of a number ends after 15 digits.
std::string ASDialect::exactDouble(std::string_view expression) const {
    const std::string e(expression);
    if (engine == ASEngine::SQLite) {
        return "CASE typeof(" + e + ") WHEN 'real' THEN printf('%!.17g', " + e + ") ELSE " + e + " END";
    }
    return e;
}

// SQLite's driver hands bytes over as the literal X'...', and so takes a text of that look for bytes.
std::string ASDialect::exactBytes(std::string_view expression) const {
    const std::string e(expression);
    return engine == ASEngine::SQLite ? "CAST(" + e + " AS BLOB)" : e;
}

std::string ASDialect::binaryLiteral(std::string_view bytes) const {
    std::string out = engine == ASEngine::SQLite ? "x'" : "'\\x";
    appendHex(out, bytes);
    out += '\'';
    return out;
}

}  // namespace QOR
