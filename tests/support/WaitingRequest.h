/// \file
/// A request that waits for something until its deadline, on a machine that may be busy.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "QORCommon/QORRequestControl.h"

namespace QOR::test {

/// What such a request is told behind "the request's deadline of ... has passed"; all that it is told where that is not
/// in it. A deadline that passes before the request has come to wait is followed by nothing: then it is asked again
/// with a longer one.
/// \param ask asks in the calling thread, and returns what was told \param deadline the first one, no whole seconds
template <class Ask>
std::string toldWhileWaiting(Ask ask, std::chrono::milliseconds deadline = std::chrono::milliseconds(100)) {
    constexpr auto longest = std::chrono::seconds(10);
    for (;; deadline *= 2) {
        const std::string passed = "the request's deadline of " + std::to_string(deadline.count()) + " ms has passed";
        const QORRequestScope scope(std::make_shared<QORRequestControl>(deadline));
        const std::string told = ask();
        const std::size_t at = told.find(passed);
        if (at == std::string::npos) return told;
        const std::string behind = told.substr(at + passed.size());
        if (!behind.empty() || deadline > longest) return behind;
    }
}

}  // namespace QOR::test
