// The driver of operator "pager": from the request to the source that answers it.

#include <algorithm>
#include <exception>
#include <utility>

#include "QORCommon/QORNulBytes.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORText.h"
#include "QORFunctionality/QORAccess.h"
#include "QORMessage/QORMessageIterator.h"
#include "QORPager/Operators/Pager/QOREnvPreFilter.h"
#include "QORPager/Operators/Pager/QORPagerErrors.h"
#include "QORPager/Operators/Pager/QORRowSet.h"
#include "QORPager/Operators/QORPagerOperator.h"
#include "QORPager/QORArg.h"
#include "QORPager/QORDateTimeRewrite.h"
#include "QORPager/QORFilterNames.h"
#include "QORPager/QORSources.h"

namespace QOR {

namespace {

/// Rows of this cursor type are environments as well; no field of the catalogue has it.
constexpr auto envInfoCursor = static_cast<TCursorType>(32);

int complain(QORMessageIterator& response, const char* text) {
    QOROperatorFunctionalPrototype::addError(&response, QORErrors, errBadRequest, text);
    return failed;
}

int refuse(QORMessageIterator& response, int code, const std::string& text) {
    QOROperatorFunctionalPrototype::addError(&response, PagerErrors, code, withoutNuls(text).c_str());
    return failed;
}

/// Of a filter that cannot be read. Beside the error of an exact request stands the place of it in the filter that was
/// given.
int refuseFilter(QORMessageIterator& response, TExpressionEvaluation& evaluator, const std::string* given) {
    if (given != nullptr) {
        const std::size_t place = placeBeforeTransform(*given, evaluator.getExpression(), evaluator.getErrorPosition());
        response.putInt64(static_cast<std::int64_t>(place), tag::offset);
    }
    return refuse(response, pagerParsingError, evaluator.getErrorMessage());
}

int refuseFurtherName(QORMessageIterator& response, std::string_view name) {
    constexpr std::size_t mostShown = 100;
    const std::string text = "too many names under prefixes on this connection: no room for \"" +
                             std::string(name.substr(0, mostShown)) + (name.size() > mostShown ? "...\"" : "\"");
    return complain(response, text.c_str());
}

}  // namespace

void QORPagerOperatorPrototype::select(QORMessageIterator* request, QORMessageIterator* response) {
    if (request == nullptr || response == nullptr) return;
    try {
        answer(*request, *response);
    } catch (const QORResponseFull& exception) {
        // Rows that are cut off somewhere would pass for an answer.
        response->removeChildren(tag::rowSet);
        addError(response, QORErrors, errFailure, exception.what());
    } catch (const QORFilterFailure& failure) {
        addError(response, PagerErrors, pagerEvaluatingError, withoutNuls(failure.message()).c_str());
    } catch (const std::exception& exception) {
        const auto* const refusal = dynamic_cast<const QORException*>(&exception);
        const int code = m_request.exact && refusal != nullptr ? refusal->code() : errFailure;
        if (code == errBadRequest || code == errDeadline) return addError(response, QORErrors, code, exception.what());
        const QORRequestControl* const control = QORRequestControl::current();
        const bool ended = control != nullptr && control->expired();
        addError(response, QORErrors, ended ? errDeadline : errFailure, exception.what());
    }
}

void QORPagerOperatorPrototype::answer(QORMessageIterator& request, QORMessageIterator& response) {
    const QOREnvCache* const cache = envCache();
    if (cache == nullptr) {
        addError(&response, QORErrors, errNoEnvCache);
        return;
    }
    m_request = {};
    useNamesOf(QORAccessChecker::getClientContext());
    m_request.envList = cache->getEnvList();
    if (parseIn(request, response) != 0 || m_request.envList == nullptr) return;
    if (m_request.exact) return selectExact(request, response);
    QOREIDFilter filter(0);
    const bool aboutEnvs = m_request.cursorType == TCursorType::Env;
    if (!aboutEnvs && (m_request.envFieldInWhere || m_request.envFieldSelected) &&
        fillInfoCursor(response, filter) != 0)
        return;
    switch (m_request.cursorType) {
        case TCursorType::EventLog:
            selectEventLogs(response);
            break;
        case TCursorType::Info:
            selectBackups(response);
            break;
        case TCursorType::OpLog:
            selectOpLogs(response);
            break;
        case TCursorType::Env:
            break;  // environments are not listed by themselves
    }
}

int QORPagerOperatorPrototype::parseIn(QORMessageIterator& request, QORMessageIterator& response) {
    int statistics = 0;  // any number asks for the counts
    m_request.statisticsWanted = request.getValue(statistics, tag::statistics) == 0;
    if (readLimit(request, response) != 0 || readExact(request, response) != 0) return failed;
    if (readFields(request, response) != 0 || readSort(request, response) != 0) return failed;
    return readWhere(request, response);
}

int QORPagerOperatorPrototype::readLimit(const QORMessageIterator& request, QORMessageIterator& response) {
    m_request.limitOffset = QORPagerRequest::notAsked;
    m_request.limitSize = QORPagerRequest::notAsked;
    const auto at = request.clone();
    if (at->firstChild(tag::limit) != 0) return 0;
    if (at->getValue(m_request.limitSize, tag::size) != 0) {
        response.reset();
        response.addChild(tag::reply);
        return complain(response, "limit/size is absent");
    }
    static_cast<void>(at->getValue(m_request.limitOffset, tag::offset));
    return 0;
}

int QORPagerOperatorPrototype::readExact(const QORMessageIterator& request, QORMessageIterator& response) {
    const bool isExact = request.seekPresence(tag::exact) == 0;
    const bool hasAfter = request.seekPresence(tag::after) == 0;
    const bool hasCount = request.seekPresence(tag::count) == 0;
    m_request.explains = request.seekPresence(tag::explain) == 0;
    if (!isExact && m_request.explains) return complain(response, "explain is for exact requests");
    if (!isExact) return hasAfter || hasCount ? complain(response, "after and count are for exact requests") : 0;
    QORPagerRequest::Exact& exact = m_request.exact.emplace();
    std::string text;
    if (hasCount) {
        static_cast<void>(request.getValue(text, tag::count));
        exact.count = QORCountLimit::read(text);
        if (!exact.count)
            return complain(
                response,
                ("count: " + quoteText(text) + " is none of none, capped, exact and a time such as 200ms").c_str());
    }
    if (!hasAfter) return 0;
    static_cast<void>(request.getValue(exact.after.emplace(), tag::after));
    if (m_request.limitOffset == QORPagerRequest::notAsked) return 0;
    return complain(response, "after: the page token says where the page begins, so an offset cannot be given");
}

int QORPagerOperatorPrototype::readFields(const QORMessageIterator& request, QORMessageIterator& response) {
    const auto at = request.clone();
    if (at->firstChild(tag::field) != 0) return complain(response, "field is absent");
    std::string cacheName;
    do {
        std::string name;
        if (at->getValue(name) != 0) return complain(response, "invalid field");
        QORFieldSet::Position field;
        if (findField(name, field, response) != 0) return failed;
        m_request.selectFields.push_back(&*field);
        if (selectField(*field, cacheName, response) != 0) return failed;
    } while (at->nextSibling(tag::field) == 0);
    return 0;
}

/// A field of the catalogue, or one that a prefix stands for, which becomes known to the filter too.
int QORPagerOperatorPrototype::findField(std::string_view name, QORFieldSet::Position& field,
                                         QORMessageIterator& response) {
    field = m_fieldSet.find(name);
    if (field != m_fieldSet.end()) return 0;
    if (!m_fieldSet.hasPrefix(name)) return refuse(response, pagerUnknownField, std::string(name));
    if (!m_knownNames.hasRoomFor(name, m_fieldSet)) return refuseFurtherName(response, name);
    field = m_fieldSet.checkPrefix(name);
    m_evaluator->setIdentifier(name, "", false);
    return 0;
}

/// All fields but those of environments must come from one source, and from one cache of it.
int QORPagerOperatorPrototype::selectField(const QORField& field, std::string& cacheName,
                                           QORMessageIterator& response) {
    if (field.cursorType == TCursorType::Env) {
        m_request.envFieldSelected = true;
        return 0;
    }
    const bool otherSource = m_request.cursorType != TCursorType::Env && m_request.cursorType != field.cursorType;
    const bool otherCache = m_request.cursorType == TCursorType::Info && field.cacheName != cacheName;
    if (otherSource || otherCache) return refuse(response, pagerParsingError, "Can't select from multiply tables");
    m_request.cursorType = field.cursorType;
    cacheName = field.cacheName;
    return 0;
}

int QORPagerOperatorPrototype::readSort(const QORMessageIterator& request, QORMessageIterator& response) {
    const auto at = request.clone();
    for (int found = at->firstChild(tag::sort); found == 0; found = at->nextSibling(tag::sort)) {
        std::string name;
        if (at->getValue(name, tag::field) != 0) {
            response.reset();
            return complain(response, "sort/field is absent");
        }
        const bool descending = at->seekPresence(tag::descending) == 0;
        QORFieldSet::Position field = m_fieldSet.find(name);
        if (m_request.exact && findField(name, field, response) != 0) return failed;
        if (field == m_fieldSet.end()) return refuse(response, pagerUnknownField, name);
        m_request.sortOrder[&*field] = descending;
        if (m_request.exact && addSortKey(*field, descending, response) != 0) return failed;
    }
    return 0;
}

int QORPagerOperatorPrototype::addSortKey(const QORField& field, bool descending, QORMessageIterator& response) {
    if (field.cursorType != TCursorType::Env && field.cursorType != m_request.cursorType)
        return refuse(response, pagerParsingError, "Can't sort by a field of another table: " + field.name);
    if (!QORSortValue::hasOrder(field))
        return refuse(response, pagerParsingError, "Can't sort by a date, which has no order: " + field.name);
    m_request.exact->sortKeys.push_back({&field, descending});
    return 0;
}

int QORPagerOperatorPrototype::readWhere(const QORMessageIterator& request, QORMessageIterator& response) {
    m_request.hasWhere = request.seekPresence(tag::where) == 0;
    if (!m_request.hasWhere) return 0;
    if (request.getValue(m_request.where, tag::where) != 0) return complain(response, "invalid where");
    const std::string given = m_request.exact ? m_request.where : std::string();
    if (!transformDateTime(m_request.where)) return complain(response, "invalid date/time format in where");
    if (declareNames(m_request.where, response) != 0) return failed;
    m_evaluator->setExpression(m_request.where);
    if (m_evaluator->prepareSpecial()) return refuseFilter(response, *m_evaluator, m_request.exact ? &given : nullptr);
    m_request.whereGiven = true;
    // In the order of the names, which is that of the catalogue.
    for (const std::string& name : m_evaluator->usedIdentifiers()) {
        const QORFieldSet::Position field = m_fieldSet.find(name);
        if (field != m_fieldSet.end() && useWhereField(*field, response) != 0) return failed;
    }
    m_request.hasWhere = !m_request.whereFields.empty();
    return 0;
}

int QORPagerOperatorPrototype::useWhereField(const QORField& field, QORMessageIterator& response) {
    const QORSourceConstant& placeholder = sourceOf(TCursorType::Env).constant(QORConstantUse::Unit);
    const bool aboutEnvs = m_request.cursorType == TCursorType::Env;
    if (field.cursorType == envInfoCursor && aboutEnvs) m_request.cursorType = envInfoCursor;
    if (field.cursorType == TCursorType::Env) m_request.envFieldInWhere = true;
    if (field.name != placeholder.name) {
        m_request.whereFields.push_back(&field);
        return 0;
    }
    bool found = false;
    m_request.inPlaceholderList =
        m_evaluator->extractConstByIdentifierAndOperation(field.name, placeholder.operation, found);
    if (found) return 0;
    return refuse(response, pagerParsingError,
                  "incorrect <in> expression: cannot find <in> expression for InPlaceholder");
}

/// Names under a prefix may stand in the filter whether or not the request selects them.
int QORPagerOperatorPrototype::declareNames(std::string_view where, QORMessageIterator& response) {
    int result = 0;
    forEachName(where, [&](std::string_view name) {
        QORFieldSet::Position field;
        if (result == 0 && m_fieldSet.hasPrefix(name)) result = findField(name, field, response);
    });
    return result;
}

/// Gives the filter the environments that pass the environment part of the request's; all where it has no such part.
int QORPagerOperatorPrototype::fillInfoCursor(QORMessageIterator& response, QOREIDFilter& filter) {
    QOREIDList passing;
    if (m_request.hasWhere && !m_evaluator->onlyNotSpecial()) {
        QOREnvPreFilter preFilter(*m_evaluator, m_request.whereFields);
        if (preFilter.run(*m_request.envList, passing) != 0)
            return refuse(response, pagerEvaluatingError, preFilter.error());
    } else {
        passing.reserve(m_request.envList->size());
        for (const QORPtr<const QOREnv>& env : *m_request.envList)
            passing.insert(passing.end(), env->getEID());
    }
    filter.set(std::move(passing));
    return 0;
}

}  // namespace QOR
