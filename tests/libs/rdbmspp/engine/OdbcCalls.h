/// \file
/// Counts what is asked of the driver, so that a test can tell work that grows with a value's length from work that
/// grows with its square.
#pragma once

#include <cstdint>

namespace QOR::test {

struct OdbcCalls {
    std::uint64_t getData = 0;
    std::uint64_t bytesAskedFor = 0;  ///< room that the calls had for values
};

/// Of the whole process up to now.
OdbcCalls odbcCalls();

}  // namespace QOR::test
