/// \file
/// Operator "pager": pages of rows from the agent's live data. One object serves one client.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "QORFunctionality/QOROperator.h"
#include "QORLibAgent/QORLogs.h"
#include "QORPager/Operators/Pager/QOREIDFilter.h"
#include "QORPager/Operators/Pager/QORFilterConstants.h"
#include "QORPager/Operators/Pager/QORKnownNames.h"
#include "QORPager/Operators/Pager/QORPagerRequest.h"
#include "QORPager/QORCaches.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORFieldList.h"
#include "QORPager/QORFieldSet.h"
#include "QORPager/QORPagerVocabulary.h"

namespace QOR {

class QORRowSet;

/// The path that log lines of this operator carry, whichever of its files writes them.
inline constexpr const char* pagerSourcePath = "qor/plugins/QORPager/Operators/QORPagerOperator";

/// The host calls init() once, then select() and stopCallback() in turn, disconnect() when the client goes, never two
/// at once. What a request left behind ends with stopCallback(), but for the filter that was compiled last, which the
/// next one replaces, and for fields found by their prefix, which whoever found them may go on to sort by.
class QORPagerOperatorPrototype final : public QOROperatorAsyncPrototype {
public:
    QORPagerOperatorPrototype();
    ~QORPagerOperatorPrototype() override;

    void init() override;
    void stopCallback() override;
    /// Leaves the operator as init() does, but without a client's access.
    void disconnect(QORAccesserPrototype* accesser) override;

    /// Request "select": `request` stands on the select element, the row set is appended at `response`. A failure adds
    /// one error entry and ends the request; what was written before it stays.
    void select(QORMessageIterator* request, QORMessageIterator* response);

    /// What it reads from the vocabulary; comes with its registration.
    static std::span<const QORVocCategoryRule> vocabulary() noexcept { return pagerVocabulary(); }
    /// What its requests may name; comes with it too.
    static std::vector<QOROpField> listFields() { return listConfiguredFields(); }

    const QORFieldSet& fields() const noexcept { return m_fieldSet; }
    const CacheInfoMap& caches() const noexcept { return m_caches; }
    int limitSize() const noexcept { return m_request.limitSize; }
    int limitOffset() const noexcept { return m_request.limitOffset; }

private:
    // Start-up.
    void resetEvaluator();
    void initIdentifiers();
    void useNamesOf(const QORClientContextPtr& identity);

    // The request. Each returns 0, or a negative number after it has added an error.
    void answer(QORMessageIterator& request, QORMessageIterator& response);
    int parseIn(QORMessageIterator& request, QORMessageIterator& response);
    int readLimit(const QORMessageIterator& request, QORMessageIterator& response);
    int readExact(const QORMessageIterator& request, QORMessageIterator& response);
    int readFields(const QORMessageIterator& request, QORMessageIterator& response);
    int selectField(const QORField& field, std::string& cacheName, QORMessageIterator& response);
    int readSort(const QORMessageIterator& request, QORMessageIterator& response);
    int addSortKey(const QORField& field, bool descending, QORMessageIterator& response);
    int readWhere(const QORMessageIterator& request, QORMessageIterator& response);
    int useWhereField(const QORField& field, QORMessageIterator& response);
    int findField(std::string_view name, QORFieldSet::Position& field, QORMessageIterator& response);
    int declareNames(std::string_view where, QORMessageIterator& response);
    int fillInfoCursor(QORMessageIterator& response, QOREIDFilter& filter);

    // Sources.
    QORFilterConstants constants() { return QORFilterConstants(m_request.whereGiven ? &*m_evaluator : nullptr); }
    void selectOpLogs(QORMessageIterator& response);
    void selectEventLogs(QORMessageIterator& response);
    void selectBackups(QORMessageIterator& response);
    void selectExact(const QORMessageIterator& request, QORMessageIterator& response);
    std::int64_t fetchOplog(const QORLogSpan& span, QORRowSet& rowSet, std::int64_t& total);
    std::int64_t fetchEvents(const QORLogSpan& span, std::string_view category, QORRowSet& rowSet, std::int64_t& total);

    QORFieldSet m_fieldSet;
    QORKnownNames m_knownNames;
    CacheInfoMap m_caches;
    std::optional<TExpressionEvaluation> m_evaluator;
    QORPagerRequest m_request;
};

/// Made while the module is loaded, released while it is unloaded.
extern QORPtr<QOROpFactory> factoryQORPagerOperatorPrototype;

}  // namespace QOR
