/// \file
/// Runs one of the collectors that come with the host.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "QORFunctionality/QORCollector.h"
#include "ingest/QORCollectors.h"

namespace QOR::test {

inline QORCollectResult runOnce(QORCollector& collector, const std::filesystem::path& root) {
    return runCollector(collector, {.root = root, .ingest = {}}, {});
}

inline QORCollectResult runOnce(const std::string& collector, const std::filesystem::path& root) {
    registerCollectors();
    for (QORCollector* const one : QORCollectorRegistry::instance().all()) {
        if (one->traits().name == collector) return runOnce(*one, root);
    }
    ADD_FAILURE() << "there is no " << collector;
    return {};
}

}  // namespace QOR::test
