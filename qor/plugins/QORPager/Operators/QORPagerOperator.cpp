#include "QORPager/Operators/QORPagerOperator.h"

#include <iterator>
#include <utility>

#include "QORPager/Operators/QORPagerErrors.h"

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

QORPagerOperatorPrototype::QORPagerOperatorPrototype() {
    static const MethodDescriptor table[] = {
        method("select", &QORPagerOperatorPrototype::select, 100, 0),
        {"", nullptr, 0, 0},
    };
    registerMethods(table);
}

QORPagerOperatorPrototype::~QORPagerOperatorPrototype() = default;

void QORPagerOperatorPrototype::select(QORMessageIterator*, QORMessageIterator* response) {
    addError(response, QORErrors, errFailure,
             "operator \"pager\" does not select yet; ask operator \"pager2\" for a view instead");
}

}  // namespace QOR
