/// \file
/// What tests of engines of containers have in common.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ingest/OneCollector.h"
#include "ingest/collectors/ContainerCollector.h"
#include "support/HostDatabase.h"

namespace QOR::test {

/// A machine with a collector and a database.
class ContainerTest : public testing::Test {
protected:
    explicit ContainerTest(ContainerCollector::Engine engine) : m_collector(engine) {
        registerCollectors();  // the host's own keeps its name
        write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
        m_database.open();
    }

    /// A file of the machine, with the folders that it is in.
    void write(const std::string& file, const std::string& text) const {
        const std::filesystem::path path = m_root / file;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }
    QORCollectResult collect() { return runOnce(m_collector, m_root.path()); }
    QORCollectResult collectDone() {
        QORCollectResult result = collect();
        EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
        return result;
    }
    static std::vector<Row> lives() {
        return queryRows("SELECT title, state, transition FROM \"vEnvironment\" ORDER BY title", 3);
    }
    static std::vector<Row> operations() {
        return queryRows(
            "SELECT op, status FROM \"vOpLog\" ORDER BY (SELECT seq FROM qor_operation o WHERE o.id = \"vOpLog\".id)",
            2);
    }

    const TemporaryDirectory m_root;
    HostDatabase m_database{TestTables::Own};
    ContainerCollector m_collector;
};

}  // namespace QOR::test
