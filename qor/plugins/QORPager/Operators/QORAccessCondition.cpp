#include "QORPager/Operators/QORAccessCondition.h"

#include <string>
#include <utility>

namespace QOR {

ASComparison accessCondition(const QORRowAccess& access, const std::vector<ASAttribute>& owners) {
    ASComparison condition;
    if (access.isFull()) return condition;
    std::string list;
    for (const QOREID& eid : access.owners())
        list.append(list.empty() ? "'" : ",'").append(eid.toString()).append("'");
    if (!list.empty()) {
        for (const ASAttribute& owner : owners)
            condition = std::move(condition) || ASAttribute::In(owner, list);
    }
    return condition.empty() ? ASComparison("1 = 0") : condition;
}

}  // namespace QOR
