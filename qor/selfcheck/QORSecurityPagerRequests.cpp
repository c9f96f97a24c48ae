#include "selfcheck/QORSecurityPagerRequests.h"

#include <algorithm>
#include <string_view>

#include "QORPager/QORFieldSet.h"

namespace QOR {
namespace {

using Words = std::vector<std::string>;

/// Parameters of documents, as names under a prefix.
constexpr const char* parameters[] = {"env.eid",          "env.name", "package.package", "package.version", "task_id",
                                      "source_env.title", "a",        "a.b.c",           "no such.x",       "secret"};
constexpr const char* operations = "pager.op_log";
constexpr const char* events = "pager.event_log";

constexpr const char* hostilePatterns[] = {"%", "_",  "",  "'", "\"",      "a%b_c",
                                           "!", "\\", "0", "x", "%%%%a%b", "\xc3\xa4"};
constexpr const char* filterNumbers[] = {"0",  "1",    "2",          "6",          "7",
                                         "-1", "1024", "2147483647", "2147483648", "99999999999"};

const Words& orWords(const Words& words) {
    static const Words some{"x"};
    return words.empty() ? some : words;
}

}  // namespace

QORPagerSamples::QORPagerSamples(const std::vector<QORCheckedView>& views) {
    for (const QORCheckedView& view : views) {
        const bool isBackups = view.name == "vBackupInfo";
        if (!isBackups && view.name != "vEnvironment" && view.name != "vOpLog" && view.name != "vEventLog") continue;
        for (const QORCheckedColumn& column : view.columns) {
            Words& words = column.type == "uniqueidentifier" ? eids
                           : column.type == "datetime"       ? times
                           : isBackups                       ? backups
                                                             : texts;
            words.insert(words.end(), column.samples.begin(), column.samples.end());
        }
    }
}

QORPagerRequests::QORPagerRequests(const QORPagerSamples& samples, std::uint64_t seed)
    : m_samples(samples), m_dice(seed) {
    QORFieldSet set;
    set.init(nullptr);
    for (const QORField& field : set) {
        const Source source = field.cursorType == TCursorType::OpLog      ? Operations
                              : field.cursorType == TCursorType::EventLog ? Events
                              : field.cursorType == TCursorType::Info     ? Backups
                                                                          : Environments;
        m_fields[source].push_back(field.name);
        if (source == Environments && field.valueType == TValueType::Integer) m_numbers.push_back(field.name);
    }
    for (const char* const parameter : parameters) {
        m_fields[Operations].push_back(std::string(operations) + ".parameter." + parameter);
        m_fields[Events].push_back(std::string(events) + ".parameter." + parameter);
        m_fields[Backups].push_back(std::string("pager.backup.") + parameter);
    }
}

QORSecurityRequest QORPagerRequests::next() {
    static constexpr const char* shapes[] = {"pager: environments", "pager: operation log", "pager: event log",
                                             "pager: backups"};
    m_request = {"pager", {}, {}, QORSecurityRequest::Order::Exact};
    const std::uint64_t die = m_dice.number(100);
    const Source source = die < 38 ? Operations : die < 68 ? Events : die < 94 ? Backups : Environments;
    note(shapes[source]);
    m_request.body = noteElement("select", fields(source) + rest(source));
    return m_request;
}

std::string QORPagerRequests::fields(Source source) {
    std::string written;
    for (std::uint64_t left = 1 + m_dice.number(4); left > 0; --left)
        written += (written.empty() ? "" : ",") + noteLeaf("field", field(source));
    if (chance(1)) return noteElement("distinct", "");  // none at all
    if (chance(10)) {
        note("pager: field of environments beside others");
        written += "," + noteLeaf("field", pick(m_fields[Environments]));
    }
    return written;
}

std::string QORPagerRequests::field(Source source) {
    if (chance(2)) return "pager." + pick(m_fields[Environments]);  // unknown
    if (chance(2)) return pick(m_fields[1 + m_dice.number(sources - 1)]);
    return pick(m_fields[source]);
}

std::string QORPagerRequests::rest(Source source) {
    std::string written;
    const bool exact = chance(40);
    if (exact) {
        note("pager: exact");
        written += ",[\"exact\"]";
    }
    if (chance(50)) written += "," + limit();
    for (unsigned left = exact ? 3 : 1; left > 0 && chance(exact ? 50 : 15); --left) {
        note("pager: sort");
        const std::string key = chance(3) ? std::string() : noteLeaf("field", field(source));
        written += "," + noteElement("sort", key + (chance(50) && !key.empty() ? ",[\"descending\"]" : ""));
    }
    if (chance(exact ? 40 : 1)) {
        note("pager: count");
        static constexpr const char* ways[] = {"none", "capped", "exact", "60000ms", "some"};
        written += "," + noteLeaf("count", pick(ways));
    }
    if (chance(92)) {
        note("pager: filter");
        written += "," + noteLeaf("where", filter(source));
    }
    if (chance(60)) {
        note("pager: statistics");
        written += "," + noteLeaf("statistics", chance(90) ? "1" : "x");
    }
    return written;
}

std::string QORPagerRequests::limit() {
    note("pager: page");
    static constexpr const char* odd[] = {"0", "-1", "2147483647", "x"};
    std::string written;
    if (!chance(2)) written = noteLeaf("size", chance(90) ? std::to_string(1 + m_dice.number(30)) : pick(odd));
    if (chance(60)) {
        if (!written.empty()) written += ",";
        written += noteLeaf("offset", chance(90) ? std::to_string(m_dice.number(40)) : pick(odd));
    }
    return noteElement("limit", written);
}

// ---- filters --------------------------------------------------------------------------------------------------------

/// What the source reads from a filter, and beside it whatever the language has.
std::string QORPagerRequests::filter(Source source) {
    Words terms = termsOf(source);
    if (terms.empty() || chance(35)) terms.push_back(expression(source, 3));
    if (chance(6)) terms.push_back(trouble());
    std::string written;
    for (const std::string& term : terms) {
        if (!written.empty()) written += chance(90) ? " and " : chance(50) ? " OR " : " ";
        written += chance(10) ? "(" + term + ")" : chance(4) ? "not " + term : term;
    }
    if (chance(1)) written.resize(m_dice.number(written.size() + 1));
    return written;
}

std::vector<std::string> QORPagerRequests::termsOf(Source source) {
    Words terms;
    if (source == Operations) addTerms(terms, operations);
    if (source == Backups) addBackupTerms(terms);
    if (source != Events) return terms;
    static constexpr const char* categories[] = {"pager.event_log.category='resource_alert'",
                                                 "pager.event_log.category='env_status'"};
    if (chance(92)) {
        note("pager: category");
        terms.emplace_back(pick(categories));
        if (chance(30)) terms.back() = std::string("(") + categories[0] + " or " + categories[1] + ")";
    }
    addTerms(terms, events);
    return terms;
}

void QORPagerRequests::addTerms(Words& terms, const std::string& log) {
    if (chance(55)) {
        note("pager: environment");
        const std::string field = log + ".parameter.env.eid";
        terms.push_back(chance(80) ? field + " = " + quoted(eid()) : quoted(eid()) + " = " + field);
    }
    for (const char* const operation : {" >= ", " <= "}) {
        if (!chance(30)) continue;
        note("pager: time");
        terms.push_back(chance(85) ? log + ".time" + operation + quoted(time())
                                   : quoted(time()) + operation + log + ".time");
        if (chance(3)) terms.back() = log + ".time" + operation + pick(filterNumbers);
    }
}

void QORPagerRequests::addBackupTerms(Words& terms) {
    if (chance(40)) terms.push_back("pager.backup.info.name like " + quoted(pattern(m_samples.backups)));
    if (chance(15)) terms.push_back("lower(pager.backup.info.hostname) like " + quoted(pattern(m_samples.backups)));
    if (chance(15)) terms.push_back("pager.backup.info.veid = " + quoted(text(m_samples.backups)));
    if (chance(15)) terms.push_back("pager.backup.info.ip like " + quoted(pattern(m_samples.backups)));
    if (chance(terms.empty() ? 80 : 20)) {
        terms.push_back("pager.backup.time >= " + quoted(chance(50) ? "0" : time()));
        terms.push_back("pager.backup.time <= " + quoted(chance(50) ? "2147483647" : time()));
    }
    if (chance(20)) {
        note("pager: storage");
        terms.push_back("pager.backup.storage_eid = " + quoted(eid()));
    }
}

std::string QORPagerRequests::expression(Source source, int depth) {
    const std::uint64_t kind = depth > 0 ? m_dice.number(10) : 9;
    if (kind < 4) {
        return expression(source, depth - 1) + (kind % 2 ? " and " : " or ") + expression(source, depth - 1);
    }
    if (kind == 4) return "not (" + expression(source, depth - 1) + ")";
    if (kind == 5) return "(" + expression(source, depth - 1) + ")";
    return comparison(source);
}

std::string QORPagerRequests::comparison(Source source) {
    static constexpr const char* operators[] = {" = ", " <> ", " != ", ">", " >=", "< ", " <= "};
    const std::uint64_t kind = m_dice.number(12);
    if (kind == 0) {
        note("pager: in");
        return "pager.env.eid in (unit " + quoted(chance(50) ? eid() : text(m_samples.texts)) + ", recursive)";
    }
    if (kind < 4) {
        note("pager: like");
        return operand(source, false) + " like " +
               (chance(85) ? quoted(pattern(m_samples.texts)) : operand(source, false));
    }
    if (kind == 4 && !m_numbers.empty()) {
        // What an environment holds decides whether this can be evaluated.
        note("pager: division");
        return std::string(pick(filterNumbers)) + " / " + pick(m_numbers) + pick(operators) + pick(filterNumbers);
    }
    const bool isNumber = kind == 5;
    note("pager: comparison");
    return operand(source, isNumber) + pick(operators) + operand(source, isNumber);
}

/// What cannot be read, or not be evaluated.
std::string QORPagerRequests::trouble() {
    note("pager: trouble");
    static constexpr const char* all[] = {"1/0 = 1",    "upper(5) = 'x'",      "1",        "no.such.name = 1", "'open",
                                          "1 and true", "pager.env.state",     "1 2",      "true + 1 = 2",     "1 = 1",
                                          "true",       "lower('A') like 'a'", "-'x' = 1", "lower 'x' = 'y'",  "in"};
    return pick(all);
}

std::string QORPagerRequests::operand(Source source, bool isNumber) {
    if (isNumber) {
        static constexpr const char* signs[] = {" + ", " - ", " * "};
        std::string value = m_numbers.empty() || chance(40) ? pick(filterNumbers) : pick(m_numbers);
        return chance(30) ? value + pick(signs) + pick(filterNumbers) : value;
    }
    std::string value = chance(55) ? name(source) : quoted(text(m_samples.texts));
    if (chance(10)) value += " + " + quoted(text(m_samples.texts));
    if (!chance(15)) return value;
    return (chance(50) ? "upper(" : "lower(") + value + ")";
}

std::string QORPagerRequests::name(Source source) {
    const bool isEnvironments = chance(source == Environments ? 95 : source == Operations ? 8 : 45);
    if (isEnvironments) note("pager: environments in the filter");
    return pick(m_fields[isEnvironments ? Environments : source]);
}

std::string QORPagerRequests::eid() {
    if (chance(4)) return "00000000-0000-0000-0000-000000000000";
    if (chance(4)) return pick(hostilePatterns);
    std::string text = pick(orWords(m_samples.eids));
    if (chance(10)) text = "{" + text + "}";
    return text;
}

std::string QORPagerRequests::time() {
    static constexpr const char* odd[] = {"1970-01-01", "1969-12-31 23:59:59", "2038-01-19T03:14:08Z", "9999-12-31",
                                          "some day"};
    return chance(15) ? pick(odd) : pick(orWords(m_samples.times));
}

std::string QORPagerRequests::text(const Words& samples) {
    return chance(75) ? pick(orWords(samples)) : pick(hostilePatterns);
}

std::string QORPagerRequests::pattern(const Words& samples) {
    constexpr std::size_t tooLong = 50'001;  // bytes of a pattern that no engine of ours takes
    if (m_dice.number(200) == 0) return std::string(tooLong, '%');
    std::string pattern = text(samples);
    if (pattern.size() > 1 && chance(60)) pattern = pattern.substr(0, 1 + m_dice.number(pattern.size())) + "%";
    return chance(20) ? "%" + pattern : pattern;
}

std::string QORPagerRequests::quoted(const std::string& text) {
    const char quote = chance(80) ? '\'' : '"';
    std::string literal(1, quote);
    for (const char c : text)
        literal += c == quote ? std::string(2, c) : std::string(1, c);
    return literal + quote;
}

}  // namespace QOR
