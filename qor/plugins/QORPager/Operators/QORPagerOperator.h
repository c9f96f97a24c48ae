/// \file
/// Operator "pager": pages of rows from the agent's live data. One object serves one client.
#pragma once

#include "QORFunctionality/QOROpFactory.h"
#include "QORFunctionality/QOROperator.h"

namespace QOR {

class QORPagerOperatorPrototype final : public QOROperatorAsyncPrototype {
   public:
    QORPagerOperatorPrototype();
    ~QORPagerOperatorPrototype() override;

    /// Request "select".
    void select(QORMessageIterator* request, QORMessageIterator* response);
};

/// Made while the module is loaded, released while it is unloaded.
extern QORPtr<QOROpFactory> factoryQORPagerOperatorPrototype;

}  // namespace QOR
