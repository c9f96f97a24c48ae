/// \file
/// Texts and requests of any size.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace QOR::test {

/// The text so many times.
inline std::string repeated(std::string_view text, std::size_t times) {
    std::string all;
    all.reserve(text.size() * times);
    for (std::size_t time = 0; time < times; ++time)
        all += text;
    return all;
}

/// The text as often as it takes to have so many bytes at least.
inline std::string repeatedToBytes(std::string_view text, std::size_t bytes) {
    return repeated(text, (bytes + text.size() - 1) / text.size());
}

/// A request of "pager" whose filter has so many bytes, and whose result is small.
inline std::string filterRequest(std::size_t bytes) {
    return R"({"operator":"pager","request":"select","body":[1740,[[1741,"pager.op_log.op"],[1742,")" +
           repeatedToBytes("pager.op_log.status = 1 or ", bytes) + R"(pager.op_log.status = 2"]]]})";
}

}  // namespace QOR::test
