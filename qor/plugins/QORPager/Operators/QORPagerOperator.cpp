#include "QORPager/Operators/QORPagerOperator.h"

#include <iterator>
#include <utility>

#include "QORFunctionality/QORAccess.h"
#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/Operators/Pager/QORPagerErrors.h"

namespace QOR {

namespace {

constexpr std::pair<int, const char*> Map_PagerErrors_Array[] = {
    {pagerDatabaseError, "Pager error: database error \"%s\""},
    {pagerUnknownField, "Pager error: unknown field \"%s\""},
    {pagerParsingError, "Pager parsing error: %s"},
    {pagerEvaluatingError, "Pager evaluating error: %s"},
    {0, ""},
};

}  // namespace

// Defined before the factory: the order of definition is the order of initialisation.
QORErrorTable PagerErrors(std::begin(Map_PagerErrors_Array), std::end(Map_PagerErrors_Array));

QORPtr<QOROpFactory> factoryQORPagerOperatorPrototype =
    newOperatorFactory<QORPagerOperatorPrototype, 10, 20, 4, true>("pager", 272, 100);

namespace {

/// Bytes of a compiled filter that may stay until the next one is compiled.
constexpr std::size_t mostKeptFilter = std::size_t{256} << 10;

}  // namespace

QORPagerOperatorPrototype::QORPagerOperatorPrototype() : m_evaluator(std::in_place) {
    static const MethodDescriptor table[] = {
        method("select", &QORPagerOperatorPrototype::select, 100, 0),
        {"", nullptr, 0, 0},
    };
    registerMethods(table);
    m_fieldSet.registerPrefixes();
}

QORPagerOperatorPrototype::~QORPagerOperatorPrototype() = default;

void QORPagerOperatorPrototype::init() {
    QOROperatorAsyncPrototype::init();
    readCachesFromVoc(m_caches);
    m_fieldSet.init(QOROpSyncAccessPrototype::createInstance("", this));
    initIdentifiers();
    m_fieldSet.registerCaches(m_caches);
}

void QORPagerOperatorPrototype::initIdentifiers() {
    m_fieldSet.declareIn(*m_evaluator);
}

void QORPagerOperatorPrototype::resetEvaluator() {
    m_evaluator.emplace();
    initIdentifiers();
}

void QORPagerOperatorPrototype::stopCallback() {
    m_request = {};
    if (m_evaluator->expressionMemory() > mostKeptFilter) m_evaluator->forgetExpression();
}

/// The filter knows the names of the set, so that it starts anew with other ones.
void QORPagerOperatorPrototype::useNamesOf(const QORClientContextPtr& identity) {
    if (m_knownNames.use(identity, m_fieldSet)) resetEvaluator();
}

void QORPagerOperatorPrototype::disconnect(QORAccesserPrototype* accesser) {
    stopCallback();
    m_knownNames.clear();
    m_fieldSet.init(nullptr);
    resetEvaluator();
    QOROperatorAsyncPrototype::disconnect(accesser);
}

}  // namespace QOR
