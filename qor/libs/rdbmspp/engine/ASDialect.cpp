#include "rdbmspp/engine/ASDialect.h"

#include <algorithm>
#include <limits>

#include "rdbmspp/engine/SqliteAmong.h"

namespace QOR {

namespace {

// A bare parameter as a pattern makes SQLite compile the statement again at each execution, because the pattern might
// let it use an index; behind the plus sign, which changes nothing else, it is no bare parameter any more.
//
// SQLite: its parser keeps 100 entries, of which a select itself takes a few; an expression has 1,000 levels.
// An engine is a row with every member named, so that the rows look alike and the compiler finds what one lacks.
const ASDialect sqlite{
    .engine = ASEngine::SQLite,
    .name = "SQLite",
    .odbcName = "SQLite",
    .beginRead = "BEGIN",
    .planOnce = "",
    .beginWrite = "BEGIN IMMEDIATE",
    .commit = "COMMIT",
    .rollback = "ROLLBACK",
    .like = " LIKE ",
    .likeParameter = "+",
    .noEscape = "",
    .nullsAscending = "",
    .nullsDescending = "",
    .byteOrder = "",
    .typed = false,
    .takesUtf8Alone = false,
    .queryOnly = "PRAGMA query_only = 1",
    .opaqueBegin = "CAST(",
    .opaqueEnd = " AS TEXT)",
    .untyped = "+",
    .among = sqliteAmong,
    .limitsLookUps = false,
    .alwaysInTransaction = false,
    .failureAborts = false,
    .statementTimeout = "",
    .lockTimeout = "",
    .setLocal = "",
    .setSession = "",
    .orderedElsewhere = "",
    .orderedAnywhere = "",
    .mark = "",
    .selectMark = "",
    .transactionId = "",
    .transactionOutcome = "",
    .keepsTokens = "",
    .leaveToken = "",
    .findToken = "",
    .forgetTokens = "",
    .maxParameters = 1000,
    .maxDescribed = 1000,
    .maxLikePattern = 50000,
    .parserDepth = 100,
    .expressionDepth = 1000,
    .eachText = "json_each(?) j",
    .firstSecond = -62167219200,
    .longestIndexed = std::numeric_limits<std::size_t>::max(),
};

const ASDialect postgres{
    .engine = ASEngine::PostgreSQL,
    .name = "PostgreSQL",
    .odbcName = "PostgreSQL",
    .beginRead = "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY",
    .planOnce = "; SET LOCAL plan_cache_mode = force_generic_plan",
    .beginWrite = "BEGIN READ WRITE",
    .commit = "COMMIT",
    .rollback = "ROLLBACK",
    .like = " ILIKE ",
    .likeParameter = "",
    .noEscape = " ESCAPE ''",
    .nullsAscending = " NULLS FIRST",
    .nullsDescending = " NULLS LAST",
    .byteOrder = " COLLATE \"C\"",
    .typed = true,
    .takesUtf8Alone = true,
    .queryOnly = "SET SESSION CHARACTERISTICS AS TRANSACTION READ ONLY",
    .opaqueBegin = "",
    .opaqueEnd = "",
    .untyped = "",
    .among = "",
    .limitsLookUps = true,
    .alwaysInTransaction = true,
    .failureAborts = true,
    .statementTimeout = "statement_timeout = ",
    .lockTimeout = "lock_timeout = ",
    .setLocal = "SET LOCAL ",
    .setSession = "SET ",
    .orderedElsewhere = "enable_sort = off",
    .orderedAnywhere = "enable_sort = on",
    .mark = "SET LOCAL qor.transaction = ",
    .selectMark = "SELECT current_setting('qor.transaction', true)",
    .transactionId = "SELECT pg_current_xact_id_if_assigned()::text",
    .transactionOutcome = "SELECT pg_xact_status(CAST(CAST(? AS text) AS xid8))",
    .keepsTokens =
        "SELECT CAST(has_table_privilege(to_regclass('qor_commit'), 'SELECT') AND has_table_privilege("
        "to_regclass('qor_commit'), 'INSERT') AND has_table_privilege(to_regclass('qor_commit'), 'DELETE') AS text)",
    .leaveToken =
        "INSERT INTO qor_commit (token) SELECT CAST(? AS text) WHERE pg_current_xact_id_if_assigned() IS NOT NULL "
        "RETURNING CAST(pg_current_xact_id() AS text)",
    .findToken = "SELECT 1 FROM qor_commit WHERE token = CAST(? AS text)",
    .forgetTokens =
        "DELETE FROM qor_commit WHERE token IN (SELECT token FROM qor_commit WHERE time < now() - interval '1 hour' "
        "ORDER BY time LIMIT 10000 FOR UPDATE SKIP LOCKED)",
    .maxParameters = 30000,   // the protocol counts them in 16 bits
    .maxDescribed = 7000,     // the client takes a description of more than 30,000 bytes for garbage
    .maxLikePattern = 50000,  // takes any; but what one engine answers the other answers too
    .parserDepth = 0,
    .expressionDepth = 0,
    .eachText =
        "(SELECT e.place - 1 AS key, e.value AS value FROM jsonb_array_elements_text(CAST(? AS jsonb)) "
        "WITH ORDINALITY AS e (value, place)) j",
    .firstSecond = -62135596800,
    .longestIndexed = 2000,  // of the 2,704 bytes of an entry, in which other columns stand too
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

// SQLite's own text form of a number ends after 15 digits; whole numbers it keeps as such in columns of decimals. Its
// printf gives as many as it is asked for, but scales by a rounded 1e100; numbers from there on are brought below it by
// a power of 2, which is exact, and say so.
std::string sqliteExactDouble(const std::string& e) {
    return "CASE typeof(" + e + ") WHEN 'real' THEN CASE WHEN abs(" + e + ") < 1e100 THEN printf('%!.20g', " + e +
           ") WHEN " + e + " - " + e + " = 0 THEN printf('%!.20g', " + e +
           " / (1.0 * (1 << 60) * (1 << 60) * (1 << 60) * (1 << 60) * (1 << 60) * (1 << 60) * (1 << 60) * (1 << 60)"
           " * (1 << 60) * (1 << 60) * (1 << 60) * (1 << 60))) || '*2^720' ELSE " +
           e + " END WHEN 'integer' THEN " + e + " || CASE WHEN length(trim(replace(" + e +
           ", '-', ''), '0')) > 15 THEN '=' ELSE '' END ELSE " + e + " END";
}

}  // namespace

namespace {

// SQLite's driver says HY000 for everything; the first eight bits of its native code are the engine's.
ASFailure sqliteFailure(std::string_view state, int native) noexcept {
    switch (native & 0xff) {
        case 3:
            return ASFailure::Denied;
        case 5:
        case 6:
            return ASFailure::Locked;
        case 7:   // no memory
        case 15:  // the locks of its log
            return ASFailure::Memory;
        case 8:
            return ASFailure::ReadOnly;
        case 9:
            return ASFailure::Ended;
        case 10:
            return ASFailure::InputOutput;
        case 11:
        case 26:  // no database at all
            return ASFailure::Corrupt;
        case 13:
            return ASFailure::Full;
        case 14:  // cannot be opened
            return ASFailure::Unreachable;
        default:
            return state.starts_with("08") ? ASFailure::Unreachable : ASFailure::Statement;
    }
}

/// A SQLSTATE, or the beginning of those of a class.
struct StateMeaning {
    std::string_view state;
    ASFailure failure;
};

constexpr StateMeaning postgresStates[] = {
    {"08", ASFailure::Unreachable},
    {"57P01", ASFailure::Unreachable},  // the administrator, or the end of the server
    {"57P02", ASFailure::Unreachable},
    {"57P03", ASFailure::Unreachable},
    {"57P05", ASFailure::Unreachable},
    {"25P03", ASFailure::Unreachable},
    {"57014", ASFailure::Ended},
    {"HY010", ASFailure::Ended},  // the driver manager's: another thread ended the statement between two of its rows
    {"55P03", ASFailure::Locked},
    {"40001", ASFailure::Undone},
    {"40P01", ASFailure::Undone},
    {"0A000", ASFailure::Stale},  // of others of this state the same statement fails again, which is what is told then
    {"26000", ASFailure::Stale},
    {"25P02", ASFailure::Aborted},
    {"25006", ASFailure::ReadOnly},
    {"42501", ASFailure::Denied},
    {"53100", ASFailure::Full},
    {"53", ASFailure::Memory},
    {"58", ASFailure::InputOutput},
    {"XX001", ASFailure::Corrupt},
    {"XX002", ASFailure::Corrupt},
};

ASFailure postgresFailure(std::string_view state) noexcept {
    for (const auto& [begin, failure] : postgresStates) {
        if (state.starts_with(begin)) return failure;
    }
    return ASFailure::Statement;
}

// SQLite's driver puts the native code behind: "no such table: t (1)".
std::string_view withoutCode(std::string_view text, int native) {
    const std::string code = " (" + std::to_string(native) + ")";
    if (text.ends_with(code)) text.remove_suffix(code.size());
    return text;
}

constexpr std::string_view dataStates = "22";

/// What the engine says of data that cannot be computed with names the value in the middle, in some states.
constexpr std::pair<std::string_view, std::string_view> dataTexts[] = {
    {"22001", "a value is too long for its type"},
    {"22003", "a number is out of range for its type"},
    {"22007", "a value is no date or time"},
    {"22008", "a date or time is out of range"},
    {"22021", "a value holds bytes that are no characters"},
};

// What quotes nothing says nothing of a row. Of others, what stands before the first thing that is quoted, in whichever
// language the engine speaks.
std::string_view withoutValues(std::string_view text, std::string_view state) {
    std::size_t quoted = text.size();
    for (const std::string_view quote : {"\"", "'", "`", "\xc2\xab", "\xc2\xbb", "\xe2\x80", "\xe3\x80", "0x"})
        quoted = std::min(quoted, text.find(quote));
    if (quoted == text.size()) return text;
    for (const auto& [known, said] : dataTexts) {
        if (state == known) return said;
    }
    text = text.substr(0, quoted);
    while (text.ends_with(' ') || text.ends_with(':'))
        text.remove_suffix(1);
    return text.empty() ? "a value cannot be computed with" : text;
}

// PostgreSQL's says on lines of their own what it was doing, and the engine on others which rows were in the way. What
// a value looked like that could not be understood may be a row's as well.
std::string_view withoutDetails(std::string_view text, std::string_view state) {
    text = text.substr(0, text.find('\n'));
    while (text.ends_with(';') || text.ends_with('\r'))
        text.remove_suffix(1);
    for (const std::string_view severity : {"ERROR: ", "FATAL: "}) {
        if (text.starts_with(severity)) text.remove_prefix(severity.size());
    }
    while (text.starts_with(' '))
        text.remove_prefix(1);
    return state.starts_with(dataStates) ? withoutValues(text, state) : text;
}

}  // namespace

const ASDialect& ASDialect::of(ASEngine engine) noexcept {
    return engine == ASEngine::PostgreSQL ? postgres : sqlite;
}

const ASDialect& ASDialect::named(std::string_view name) noexcept {
    return name.starts_with(postgres.odbcName) ? postgres : sqlite;
}

ASFailure ASDialect::failureOf(std::string_view state, int native) const noexcept {
    return engine == ASEngine::SQLite ? sqliteFailure(state, native) : postgresFailure(state);
}

// SQLite's driver is closed after whatever is not the statement's own fault. A server survives its disk and the
// connections to it with it.
bool ASDialect::leavesDoubt(ASFailure failure) const noexcept {
    if (failure == ASFailure::Unreachable) return true;
    if (engine != ASEngine::SQLite) return false;
    return failure == ASFailure::Full || failure == ASFailure::InputOutput || failure == ASFailure::Corrupt ||
           failure == ASFailure::Memory;
}

std::string ASDialect::plainText(std::string_view message, std::string_view state, int native) const {
    const std::string_view whole = message;
    while (message.starts_with('[') && message.find(']') != std::string_view::npos)
        message.remove_prefix(message.find(']') + 1);
    message = engine == ASEngine::SQLite ? withoutCode(message, native) : withoutDetails(message, state);
    return std::string(message.empty() ? whole : message);
}

std::string ASDialect::epochSeconds(std::string_view expression) const {
    if (engine == ASEngine::SQLite) return sqliteEpochSeconds(expression);
    const std::string c(expression);
    return "CASE WHEN " + c + " >= '0001-01-01' AND " + c + " < '10000-01-01' THEN CAST(floor(extract(epoch FROM " + c +
           ")) AS bigint) END";
}

std::string ASDialect::exactDouble(std::string_view expression) const {
    const std::string e(expression);
    return engine == ASEngine::SQLite ? sqliteExactDouble(e) : e;
}

std::string ASDialect::exactDecimal(std::string_view expression) const {
    constexpr const char* digitsOfADouble = "15";
    const std::string text = "CAST(trim_scale(" + std::string(expression) + ") AS text)";
    return text + " || CASE WHEN length(btrim(translate(" + text + ", '-.', ''), '0')) > " + digitsOfADouble +
           " THEN '=' ELSE '' END";
}

// SQLite's driver hands bytes over as the literal X'...', and so takes a text of that look for bytes.
std::string ASDialect::exactBytes(std::string_view expression) const {
    const std::string e(expression);
    return engine == ASEngine::SQLite ? "CAST(" + e + " AS BLOB)" : e;
}

// SQLite fails where whole numbers add up beyond 64 bits, so that their upper and lower halves are added apart. Where
// the column holds something else beside them, SQLite adds in floating point anyway.
std::string ASDialect::wholeSum(std::string_view expression) const {
    const std::string c(expression);
    if (engine != ASEngine::SQLite) return "sum(" + c + ")";
    const std::string low = "sum(" + c + " & 4294967295)";
    const std::string high = "(sum(" + c + " >> 32) + (" + low + " >> 32))";
    return "CASE WHEN count(" + c + ") > sum(typeof(" + c + ") = 'integer') THEN total(" + c + ") WHEN " + high +
           " BETWEEN -2147483648 AND 2147483647 THEN (" + high + " << 32) | (" + low + " & 4294967295) WHEN count(" +
           c + ") > 0 THEN total(" + c + ") END";
}

// A column without an integer type may hold integers all the same, and a text may look like one.
std::string ASDialect::realSum(std::string_view expression) const {
    const std::string c(expression);
    if (engine != ASEngine::SQLite) return "sum(" + c + ")";
    return "CASE WHEN count(" + c + ") > 0 THEN total(" + c + ") END";
}

std::string ASDialect::decimalSum(std::string_view expression) const {
    return "qor_decimal_sum(" + std::string(expression) + ")";
}

std::string ASDialect::comparedDecimalSum(std::string_view expression) const {
    return "CAST(rtrim(" + decimalSum(expression) + ", '=') AS NUMERIC)";
}

std::string ASDialect::decimalAverage(std::string_view expression) const {
    return "qor_decimal_average(" + std::string(expression) + ")";
}

// The engine's own cast keeps fifteen digits. From 2^53 on all numbers are whole, and their texts are rounded.
std::string ASDialect::exactNumeric(std::string_view expression) const {
    const std::string e(expression);
    return "CASE WHEN abs(" + e + ") >= 9007199254740992 AND abs(" + e + ") < 9223372036854775808 THEN CAST(CAST(" + e +
           " AS bigint) AS numeric) ELSE CAST(CAST(" + e + " AS text) AS numeric) END";
}

std::string ASDialect::realText(std::string_view expression) const {
    const std::string e(expression);
    return "CASE WHEN abs(" + e + ") <= 1.7976931348623157e308 THEN regexp_replace(CAST(CAST(CAST(" + e +
           " AS numeric) AS float8) AS text), '^(-?[0-9]+)(e|$)', '\\1.0\\2') ELSE CAST(" + e + " AS text) END";
}

std::string ASDialect::boundedPattern(std::string_view expression) const {
    const std::string p(expression);
    return "CASE WHEN length(CAST(" + p + " AS BLOB)) <= " + std::to_string(maxLikePattern) + " THEN " + p + " END";
}

AException ASDialect::explained(const AException& error) const {
    static constexpr struct {
        const char* engine;
        const char* ours;
    } texts[] = {
        {"parser stack overflow", "the select is nested too deeply for "},
        {"Expression tree is too large", "the condition is nested too deeply for "},
        {"LIKE or GLOB pattern too complex", "a pattern of LIKE is too long for "},
        {"too many SQL variables", "the select holds too many values for "},
        {"integer overflow", "a sum is beyond 64 bits of "},
        {"stack depth limit exceeded", "the condition is nested too deeply for "},
    };
    for (const auto& text : texts) {
        if (error.text().find(text.engine) == std::string::npos) continue;
        return error.reworded(std::string(text.ours) + name);
    }
    return error;
}

std::string ASDialect::guid(std::string_view expression) const {
    const std::string e(expression);
    return engine == ASEngine::SQLite ? e : "CAST(" + e + " AS uuid)";
}

std::string ASDialect::storedSeconds(std::string_view expression) const {
    const std::string e(expression);
    return engine == ASEngine::SQLite ? "CAST(strftime('%s', " + e + ") AS INTEGER)"
                                      : "CAST(extract(epoch FROM " + e + ") AS bigint)";
}

std::string ASDialect::joinedGuids(std::string_view expression) const {
    const std::string e(expression);
    return engine == ASEngine::SQLite ? "group_concat(" + e + ", ' ')" : "string_agg(CAST(" + e + " AS text), ' ')";
}

// SQLite keeps the order of what CROSS JOIN joins. PostgreSQL has to keep it where the second names the first, and does
// not dissolve a select that may leave rows out.
std::string ASDialect::lookUp(std::string_view table, std::string_view alias, std::string_view condition,
                              std::string_view per, std::string_view limit) const {
    const std::string named = std::string(table) + " " + std::string(alias);
    const std::string asked(condition);
    if (engine == ASEngine::SQLite) return " CROSS JOIN " + named + " ON " + asked;
    return " CROSS JOIN LATERAL (SELECT * FROM " + named + " WHERE " + asked + " AND " + std::string(per) +
           " IS NOT NULL" + std::string(limit.empty() ? " OFFSET 0" : limit) + ") " + std::string(alias);
}

// PostgreSQL would make a join of the one, in an order of its choice.
std::string ASDialect::none(std::string_view fromAndWhere) const {
    const std::string rows(fromAndWhere);
    return engine == ASEngine::SQLite ? "NOT EXISTS (SELECT 1 " + rows + ")" : "(SELECT count(*) " + rows + ") = 0";
}

std::string ASDialect::binaryLiteral(std::string_view bytes) const {
    std::string out = engine == ASEngine::SQLite ? "x'" : "'\\x";
    appendHex(out, bytes);
    out += '\'';
    return out;
}

}  // namespace QOR
