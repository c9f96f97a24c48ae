/// \file
/// Operator "pager2": pages of rows from views of the agent's database.
#pragma once

#include <string>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORFunctionality/QOROperator.h"

namespace QOR {

/// The path that error reports of this operator carry, whichever of its files raises them.
inline constexpr const char* pager2SourcePath = "qor/plugins/QORPager/Operators/QORPagerOperator2";

/// Throws what a malformed request is answered with. \param line where it was found out
[[noreturn]] inline void refuseRequest(std::string message, int line) {
    throwException(errBadRequest, std::move(message), pager2SourcePath, line);
}

/// The module tag of its log lines.
inline constexpr const char* pagerLogModule = "QORPager";

class QORPagerOperatorPrototype2 final : public QOROperatorAsyncPrototype {
public:
    QORPagerOperatorPrototype2();
    ~QORPagerOperatorPrototype2() override;

    /// Which views are restricted at all is settled by the client that is the first to ask for any of them. That must
    /// not be one that may see everything.
    static const QOROpPriming priming;

    /// Request "select". Both cursors must be QORBinaryIterators: `in` stands on the select element, the result
    /// element is appended at `out`. Whatever fails becomes one error entry at `out`, and no result element stays.
    void select(QORMessageIterator* in, QORMessageIterator* out);
};

}  // namespace QOR
