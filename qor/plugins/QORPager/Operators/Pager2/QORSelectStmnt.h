/// \file
/// SelectStmnt: one select of a "pager2" request, read and checked, ready to run.
///
/// The request's grammar, by tag: select (1740) with the presence flags statistics (1259) and distinct (2293), limit
/// (1377: size 1024, offset 1087), view (1009), one or more fields (1741: a text, or name 1026, or function 2222 with
/// name 1026 and field 1741), sort (1743: field 1741, descending 1378), where (1742).
///
/// Of the outermost select alone also: ordered (2401), with which columns and sort keys keep the request's order, rows
/// that are equal in them have one too, and a page tells where the next one begins; after (2402, such a place); count
/// (2403, how far rows are counted); now (2406, the moment that relative times were told from). Explain (2407) asks
/// what would become of it; whoever finds it there calls explain() in place of execute().
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "QORLibAgent/QORPageToken.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORPager/Operators/Pager2/QORColumnCell.h"
#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR {

struct QORExplanation;

/// Belongs to the thread and the client that made it. A nested select refers to its enclosing one, which must outlive
/// it. Depth of recursion is that of the request message, which its limits bound.
class SelectStmnt {
public:
    using MetaColumn = QOR::MetaColumn;
    using MetaColumnsMap = QOR::MetaColumnsMap;
    using MetaTablesMap = QOR::MetaTablesMap;

    /// Reads the select that the cursor stands on. \param parent the enclosing statement, null for the outermost
    /// \throws QORException 400 for a malformed request, 1 for an unknown view, column or function
    SelectStmnt(QORBinaryIterator it, SelectStmnt* parent);
    SelectStmnt(const SelectStmnt&) = delete;
    SelectStmnt& operator=(const SelectStmnt&) = delete;

    /// Drops what the client alone may see, after execute(); renew() comes before anything else is asked of it.
    void forgetClient();
    /// Makes it ready for another request that asks the same, whose place in the rows, moment and client may be others.
    /// Of an outermost one that has forgotten its client. \throws QORException 400 for a page token that does not fit
    void renew(const QORBinaryIterator& it);
    /// Whether renew() is enough for a client who has full access, or has none, as the one it was read for.
    bool isRenewable() const noexcept;
    /// The views that it was read by.
    const std::shared_ptr<const MetaTablesMap>& views() const noexcept { return m_views; }

    /// Runs the statement and appends the result element. Leaves `out` where it stood.
    /// \throws QORException, AException; what was written so far stays for the caller to remove
    void execute(QORBinaryIterator& out);
    /// Appends what would become of it in place of that (QORExplanation), running nothing of it. The same errors.
    void explain(QORBinaryIterator& out);
    /// The statement as SQL text, access restriction included; of a nested one, as it stands in the other's condition.
    std::string asSQLString() const;
    /// The selects that its page comes from, as SQL text, in the order in which they are run until the page is full:
    /// one, but mostly of a page behind a page token.
    std::vector<std::string> asSQLStrings() const;
    /// Projection, condition, limit and order.
    void prepareCursor(ASCursor& cursor) const;
    ASSelect toSelect() const { return toSelect({}, m_pageSize, std::max(m_firstRow, 0)); }
    /// Counts the matching rows without limit. \returns false when the count gave no row
    bool countUnlimited(ASSession& database, std::int64_t& total) const;

    const std::string& getViewName() const noexcept { return m_viewName; }
    /// The statement over the named view among this one and its enclosing ones; this one for an empty name.
    SelectStmnt& getSelectStmntByName(const std::string& name);
    ColumnCell getColumn(const std::string& name) const;
    ColumnCell getAggrColumn(const std::string& column, const std::string& displayName,
                             const std::string& function) const;
    const std::pair<const std::string, MetaColumn>& getColumnMeta(const std::string& name) const;
    /// The same, null for an unknown column.
    const std::pair<const std::string, MetaColumn>* getColumnMetaEx(const std::string& name) const;

    /// The views of the database, loaded on first use. When the client whose request loads them lacks full access, the
    /// securable views are told apart; else none is. Any thread. \throws AException when the database cannot be read;
    /// the next call tries again
    static std::shared_ptr<const MetaTablesMap> getMetaTablesMap();
    /// Whether they are loaded: from then on nothing changes them. Any thread.
    static bool areViewsKnown();
    /// Sets each view's security operation identifier, or clears it with a log line that says why.
    static void validateSecurableViews(MetaTablesMap& views);
    /// The shared domain of a view. Any thread. \param view its name as the database spells it: names of requests are
    /// looked up first, so that the cache holds at most one domain a view
    static ASDomainPtr getDomain(const std::string& view);
    /// The type in which a column is summed, or its minimum or maximum taken.
    static ColumnType clipNumericType(ColumnType type);
    /// A data object of the column type's class: empty without a text, else set from it. \param length of text columns,
    /// in characters \throws QORException 400 for a text that is not wholly a value of the type, 1 for a type outside
    /// the enumeration
    static ASDataPtr interpret(ColumnType type, const std::string* text, std::size_t length);

    /// True when the client that the calling thread serves lacks full access.
    static bool isSecurityNeeded();
    /// The names of the view's object columns, in order.
    void getSecurableObjFields(std::list<std::string>& names) const;
    /// The condition that a row belongs to an object of the client's identities.
    ASComparison accessCheckExpr(int operationId) const;
    /// Notes the operation on the outermost statement.
    void registerOperationId(int operationId);
    const std::set<int>& registeredOperationIds() const noexcept { return m_operationIds; }

private:
    /// A column of the answer, by the name that it goes by in the request.
    struct OutputField {
        std::string key;
        ColumnCell cell;
    };
    struct SortColumn {
        std::string name;
        ColumnCell cell;
        bool descending = false;
        bool isHidden = false;  ///< it is selected, but not answered
    };
    enum class Counting { None, Legacy, PageOnly, Capped, Exact, Within };
    /// How many rows there are on all pages together.
    struct Total {
        std::int64_t least = 0;
        std::optional<std::int64_t> most{};  ///< nothing: nobody knows
        bool isExact() const noexcept { return most == least; }
    };

    void readElements(const QORBinaryIterator& it);
    void readCount(const QORBinaryIterator& it);
    void readLimit(QORBinaryIterator& it);
    int readView(QORBinaryIterator& it);
    void readFields(QORBinaryIterator& it);
    void readField(QORBinaryIterator& it);
    void readSort(QORBinaryIterator& it);
    const OutputField* findOutput(const std::string& name) const;
    void readWhere(QORBinaryIterator& it);

    // Ordered selects (QORSelectPage.cpp).
    bool isPaged() const noexcept { return m_ordered && m_pageSize > 0; }
    bool isGrouped() const;
    void completeOrder();
    void addTieBreaker(const std::string& name, const ColumnCell& cell);
    bool isSeekable(const SortColumn& column) const;
    void readAfter(const QORBinaryIterator& it);
    std::vector<ASComparison> behindAfter() const;
    std::optional<std::vector<std::optional<std::string>>> keyOfRow() const;
    std::int64_t rowsBefore() const noexcept;
    bool knowsChanges() const;
    bool hasChanged(ASSession& database) const;

    void restrictAccess(int operationId);
    void restrict(ASFilter& filter, const ASComparison& behind) const;
    /// Notes on the outermost statement why it cannot be run.
    void refuseExecution(std::string reason);
    const MetaColumnsMap& getTableMeta(const std::string& view);

    // The where tree (QORWhereClause.cpp).
    /// Step the cursor. \throws QORException 400 when there is no such element
    static void firstChild(QORBinaryIterator& it);
    static void nextSibling(QORBinaryIterator& it);
    ASComparison logicalExpr(QORBinaryIterator it);
    ASComparison comparisonExpr(const QORBinaryIterator& it);
    ASComparison binaryExpr(QORBinaryIterator it, QORTag operation);
    ASComparison likeExpr(QORBinaryIterator it);
    ASComparison betweenExpr(QORBinaryIterator it);
    ASComparison isNullExpr(QORBinaryIterator it);
    ASComparison inExpr(QORBinaryIterator it);
    ColumnCell primaryExpr(const QORBinaryIterator& it);
    ColumnCell primaryExprIn(const QORBinaryIterator& it);
    ColumnCell fieldExpr(const QORBinaryIterator& it);
    ColumnCell valueExpr(const QORBinaryIterator& it) const;
    ColumnCell funcExpr(QORBinaryIterator it);
    ColumnCell selectExpr(const QORBinaryIterator& it);
    /// The escape character of a like: exactly one of ASCII.
    static char escapeExpr(const QORBinaryIterator& it);

    // Output (QORSelectExecution.cpp).
    class OutputRow;
    /// What became of a page.
    struct Page {
        std::int64_t rows = 0;
        bool isLast = true;
        std::optional<std::vector<std::optional<std::string>>> key{};  ///< of the last row
        QORPageToken next{};                                           ///< where this is not the last one
        std::optional<bool> changed{};  ///< since the first page, where this is another one
    };

    ASAccess access() const;
    void prepareAccessCheck(ASSession& database) const;
    ASSelect toSelect(const ASComparison& behind, std::int64_t most, std::int64_t offset) const;
    const ASSelect& firstPart() const;
    const ASSelect& countOfAll() const;
    /// Behind the page token, which may say that by an offset. \param written rows of the page that are there already
    ASSelect toPart(const ASComparison& behind, std::int64_t written) const;
    void write(QORBinaryIterator& out, ASSession& database) const;
    /// \param begun set once something was written
    Page writeRows(QORBinaryIterator& out, ASSession& database, bool& begun) const;
    void writeBegin(QORBinaryIterator& out) const;
    void finishPage(ASSession& database, Page& page) const;
    void writeNext(QORBinaryIterator& out, const Page& page) const;
    static void expectAdded(int result);
    static void expectWritten(int result);

    void explainStatements(ASSession& database, QORExplanation& explanation) const;

    // Counts (QORSelectCounts.cpp).
    void writeCounts(QORBinaryIterator& out, ASSession& database, const Page& page) const;
    Total countRows(ASSession& database, const Page& page) const;
    Total countWithin(ASSession& database, const Page& page) const;
    std::int64_t countUpTo(ASSession& database, std::int64_t most) const;
    std::optional<std::int64_t> mostRows(ASSession& database) const;

    SelectStmnt* m_parent;
    const ASDialect& m_dialect;  ///< that of the database when the outermost statement was read
    Counting m_counting = Counting::None;
    std::chrono::milliseconds m_countTime{};  ///< of Counting::Within
    bool m_distinct = false;
    bool m_ordered = false;
    int m_pageSize = 0;
    int m_firstRow = 0;
    std::vector<OutputField> m_outputFields;  ///< in the answer's order
    std::vector<SortColumn> m_sortColumns;    ///< the first is the primary one
    /// Of an ordered select: the sort keys tell its rows apart, and all of them can be compared with.
    bool m_seeks = false;
    std::optional<QORPageToken> m_after;  ///< the place that the page begins behind
    QORPageToken m_next;                  ///< what each token of this question says, but for the place
    bool m_nests = false;                 ///< other selects stand in the condition
    /// What is run of each request that asks the same, once it has been.
    mutable std::optional<ASSelect> m_firstPart;
    mutable std::optional<ASSelect> m_countOfAll;
    const std::shared_ptr<ASInt64> m_all = std::make_shared<ASInt64>();  ///< what that one gave
    ASDomainPtr m_domain;
    ASComparison m_where;   ///< what the client asked for
    ASComparison m_access;  ///< which rows there are for this client; none: all
    std::set<int> m_operationIds;
    std::string m_refusal;  ///< why the statement cannot be run though it could be read; of the outermost

    std::string m_viewName;                        ///< as the request spells it
    std::shared_ptr<const MetaTablesMap> m_views;  ///< keeps m_columns alive
    const MetaColumnsMap* m_columns = nullptr;
};

}  // namespace QOR
