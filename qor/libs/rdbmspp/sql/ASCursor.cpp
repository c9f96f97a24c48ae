#include "rdbmspp/sql/ASCursor.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/pool/ASSessionImpl.h"
#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASSqlBuilder.h"
#include "rdbmspp/sql/ASWrittenSelect.h"

namespace QOR {

namespace {

constexpr std::size_t bytesOfCharacter = 4;  // at most, in UTF-8
constexpr std::size_t bytesOfNumber = 24;
constexpr std::size_t bytesOfGuid = 36;
constexpr std::size_t bytesOfUndeclared = 64;
// Results that may be longer are worth a statement of their own for each set of values. Rows that hold documents may be
// large, however few they are. A server's driver needs a cursor for what it does not read whole, which costs a page
// several times what it takes otherwise.
constexpr std::int32_t documentsAtOnce = 15;
constexpr std::int32_t textsAtOnce = 100;

std::size_t expectedText(std::size_t capacity) {
    return capacity > 1 ? (capacity - 1) * bytesOfCharacter : bytesOfUndeclared;
}

OdbcColumn layoutOf(const ASData* data) {
    if (!data) return {false, bytesOfNumber};
    switch (data->type()) {
        case ASType::VarChar:
        case ASType::Char:
            return {false, expectedText(static_cast<const ASText*>(data)->capacity())};
        case ASType::Guid:
            return {false, bytesOfGuid};
        case ASType::Blob:
            return {true, bytesOfUndeclared};
        default:
            return {false, bytesOfNumber};
    }
}

/// A sum as the engine tells it; infinite when no double holds it.
double sumOf(std::string_view stored) {
    double value = std::numeric_limits<double>::infinity();
    std::from_chars(stored.data(), stored.data() + stored.size(), value);
    return value;
}

constexpr const char* overflowText = "integer overflow";  // the engine's

bool isBeyond64Bits(double sum) {
    constexpr double limit = 9223372036854775808.0;
    return std::fabs(sum) >= limit;
}

// A text among integers counts as 0 and makes the engine add in floating point; the sum is a whole number all the same.
// Beyond 2^53 it may have been rounded, and is no such number any more.
bool takeWholeReal(ASData& data, double sum) {
    constexpr double exact = 9007199254740992.0;
    if (!(std::fabs(sum) <= exact) || std::trunc(sum) != sum) return false;
    data.take(std::to_string(static_cast<std::int64_t>(sum)));
    return !data.isRaw();
}

}  // namespace

std::int32_t ASCursor::rowsAtOnce(const ASData& data, const ASDialect& dialect) noexcept {
    if (data.type() == ASType::Blob) return documentsAtOnce;
    const bool anyLength = data.type() == ASType::VarChar && static_cast<const ASVStr&>(data).capacity() <= 1;
    if (!anyLength) return mostRowsAtOnce;
    return dialect.typed ? textsAtOnce : documentsAtOnce;
}

struct ASCursor::Impl {
    struct Column {
        ASData* data;
        const ASGroupAttribute* sum;  ///< of an integer type, which may be too small for it
    };

    explicit Impl(ASSession& s) : session(s) {}

    bool next();
    void run();
    void attempt();
    void start(bool exactSums);
    const ASSqlBuilder& written() const;
    void begin(const ASSqlBuilder& builder, bool streams);
    bool adds() const;
    void bind();
    void take(std::size_t index);
    bool isOneRow() const;
    std::int32_t atOnce() const;
    AException naming(const AException& error) const;

    ASSession& session;
    ASSelect select;
    ASComparison where;  ///< what is run; the parameters point into it
    ASStatementLease statement;
    std::vector<Column> columns;
    ASSpread* spread = nullptr;  ///< null where no rows are looked for elsewhere
    std::shared_ptr<const ASPlaces> places;
    std::string asked;  ///< which of them, for people
    std::int64_t amount = 0;
    bool finished = false;
};

ASCursor::ASCursor(ASSession& session) : m_impl(std::make_unique<Impl>(session)) {}

ASCursor::~ASCursor() = default;

ASSelect& ASCursor::Select() noexcept {
    return m_impl->select;
}

bool ASCursor::Fetch() {
    if (m_impl->finished) return false;
    try {
        return m_impl->next();
    } catch (const AException& error) {
        m_impl->finished = true;
        m_impl->statement = ASStatementLease();
        throw m_impl->session.impl().dialect->explained(m_impl->naming(error));
    } catch (const QORException& ended) {
        // Which of the places is to blame the engine does not tell; often there is but one.
        if (m_impl->asked.empty()) throw;
        throw QORException(ended.code(), ended.message() + " (rows of " + m_impl->asked + " were asked for)");
    }
}

AException ASCursor::Impl::naming(const AException& error) const {
    return spread == nullptr ? error : spread->naming(*places, error);
}

std::int64_t ASCursor::GetAmount() const noexcept {
    return m_impl->amount;
}

std::string ASCursor::Query() const {
    return m_impl->select.Query(*m_impl->session.impl().dialect);
}

bool ASCursor::Impl::next() {
    if (!statement) run();
    if (!statement->fetch()) {
        finished = true;
        statement->close();  // the values of the last row go with it, as they do with every fetch
        return false;
    }
    for (std::size_t i = 0; i < columns.size(); ++i)
        take(i);
    ++amount;
    return true;
}

// Whether whole numbers add up beyond 64 bits on the way depends on the order in which the engine meets the rows. What
// is answered does not: the sums are taken again so that only what they come to in the end counts.
void ASCursor::Impl::run() {
    try {
        ASSession::Impl::doSingle(session, [this] { attempt(); });
    } catch (const AException& error) {
        if (!adds() || error.text().find(overflowText) == std::string::npos) throw;
        start(true);
    }
}

// What was begun does not outlive the failure, since the session may be made anew.
void ASCursor::Impl::attempt() {
    try {
        start(false);
    } catch (...) {
        statement = ASStatementLease();
        columns.clear();
        throw;
    }
}

void ASCursor::Impl::start(bool exactSums) {
    auto& s = session.impl();
    // Sums are all there before the first row is handed out, so that they can be taken again.
    const bool streams = s.isLong() || (s.mayStream() && isLong(select.m_limit, atOnce()) && !isOneRow() && !adds());
    if (select.m_written != nullptr && !streams && !exactSums) return begin(written(), false);
    ASSqlBuilder builder(*s.dialect, streams ? ASPurpose::Streaming : ASPurpose::Execution, exactSums,
                         std::move(s.spareText));
    where = select.where(*s.dialect);
    builder.select(select, where);
    begin(builder, streams);
    s.spareText = std::move(builder).takeText();
}

/// What was written before, where the same would be written now; else it is written, once, and kept for the next time.
const ASSqlBuilder& ASCursor::Impl::written() const {
    ASWrittenSelect& kept = *select.m_written;
    const ASDialect& dialect = *session.impl().dialect;
    const ASSqlBuilder* const before = kept.builder.get();
    if (before != nullptr && &before->dialect() == &dialect && before->isLasting()) return *before;
    kept.builder.reset();  // whose values are the condition's
    kept.where = select.where(dialect);
    auto builder = std::make_unique<ASSqlBuilder>(dialect, ASPurpose::Execution);
    builder->select(select, kept.where);
    kept.builder = std::move(builder);
    return *kept.builder;
}

void ASCursor::Impl::begin(const ASSqlBuilder& builder, bool streams) {
    auto& s = session.impl();
    if (!streams) s.readySingle(builder.computes());
    if (!streams) s.setElsewhere(builder.isElsewhere());
    auto running = streams ? s.leaseStreaming(builder.text()) : s.lease(builder.text());
    const auto& values = builder.parameters();
    for (std::size_t i = 0; i < values.size(); ++i)
        running->set(i, *values[i]);
    spread = builder.spread();
    places = builder.places();
    asked = builder.asked();
    statement = std::move(running);
    bind();
    statement->execute();
    s.untouched = false;
    // Asked once the statement has begun: until it ends, rows stay where they are.
    if (spread != nullptr && !spread->isCurrent(*places)) {
        throw AException("rows have just been moved from one place to another", "40001", 0, {}, ASFailure::Undone);
    }
}

bool ASCursor::Impl::adds() const {
    const auto& items = select.m_filter.m_project.m_items;
    return std::any_of(items.begin(), items.end(), [](const auto& item) {
        return item->group && item->group->function() == ASGroupAttribute::Function::Sum;
    });
}

// Aggregates alone: their values are the statement's to reuse, and nothing is gained by streaming.
bool ASCursor::Impl::isOneRow() const {
    const auto& items = select.m_filter.m_project.m_items;
    return select.m_count ||
           std::all_of(items.begin(), items.end(), [](const auto& item) { return item->group.has_value(); });
}

std::int32_t ASCursor::Impl::atOnce() const {
    std::int32_t rows = mostRowsAtOnce;
    for (const auto& item : select.m_filter.m_project.m_items) {
        if (const ASData* const data = item->data()) rows = std::min(rows, rowsAtOnce(*data, *session.impl().dialect));
    }
    return rows;
}

void ASCursor::Impl::bind() {
    std::vector<OdbcColumn> layout;
    if (select.m_count) {
        layout.push_back(layoutOf(select.m_count.get()));
        columns.push_back({select.m_count.get(), nullptr});
        return statement->bindColumns(layout);
    }
    const auto& items = select.m_filter.m_project.m_items;
    layout.reserve(items.size());
    columns.reserve(items.size());
    for (const auto& item : items) {
        ASData* data = item->data();
        layout.push_back(layoutOf(data));
        const bool sum =
            item->group && data && item->group->function() == ASGroupAttribute::Function::Sum && isWhole(data->type());
        columns.push_back({data, sum ? &*item->group : nullptr});
    }
    statement->bindColumns(layout);
}

void ASCursor::Impl::take(std::size_t index) {
    const Column& column = columns[index];
    if (!column.data) return;
    const std::string_view stored = statement->value(index);
    if (stored.data() == nullptr) {
        column.data->setNull();
        return;
    }
    column.data->take(stored);
    if (!column.sum || !column.data->isRaw()) return;
    const double sum = sumOf(stored);
    if (takeWholeReal(*column.data, sum)) return;
    if (isBeyond64Bits(sum)) {
        throw AException(std::string("a sum is beyond 64 bits of ") + session.impl().dialect->name);
    }
    throw AException(column.sum->Query(*session.impl().dialect) + " is " + std::string(stored) +
                     ", which is no integer of " + (column.data->type() == ASType::Int ? "32" : "64") + " bits");
}

}  // namespace QOR
