/// \file
/// Lines of records, as tests send them.
#pragma once

#include <string>

namespace QOR::test {

/// An environment, below another one where that is given.
inline std::string environment(const std::string& eid, const std::string& above = {}) {
    return R"({"kind":"environment","eid":")" + eid + '"' + (above.empty() ? "" : R"(,"parent_eid":")" + above + '"') +
           "}\n";
}

}  // namespace QOR::test
