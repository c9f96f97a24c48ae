/// \file
/// Internal: what a select was written as when it was run.
#pragma once

#include <memory>

#include "rdbmspp/sql/ASComparison.h"
#include "rdbmspp/sql/ASSqlBuilder.h"

namespace QOR {

/// Empty until it has been run. Shared by the copies of one select, and so used by one thread at a time.
struct ASWrittenSelect {
    ASComparison where;                     ///< what is run; the parameters point into it
    std::unique_ptr<ASSqlBuilder> builder;  ///< for ASPurpose::Execution
};

}  // namespace QOR
