#include "QORDBSchema/QORViewDescriptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/SchemaTable.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

/// The cells of a row of a table.
std::vector<std::string> cellsOf(const std::string& line) {
    std::vector<std::string> cells;
    std::size_t at = 1;
    while (at < line.size()) {
        const std::size_t end = std::min(line.find('|', at), line.size());
        std::string cell = line.substr(at, end - at);
        cell.erase(0, cell.find_first_not_of(' '));
        cell.erase(cell.find_last_not_of(' ') + 1);
        cells.push_back(cell);
        at = end + 1;
    }
    return cells;
}

/// What the page on views says of each column: "view.column" and its meaning.
std::map<std::string, std::string> pageOfViews() {
    std::map<std::string, std::string> meanings;
    std::ifstream page(QOR_PROJECT_DIR "/docs/views.md");
    std::string view;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## ")) view = line.substr(3);
        if (!line.starts_with("| `") || !view.starts_with('v')) continue;
        const std::vector<std::string> cells = cellsOf(line);
        for (std::size_t at = cells[0].find('`'); at != std::string::npos;) {
            const std::size_t end = cells[0].find('`', at + 1);
            meanings[view + "." + cells[0].substr(at + 1, end - at - 1)] = cells[2];
            at = cells[0].find('`', end + 1);
        }
    }
    return meanings;
}

TEST(ViewDescriptions, ThePageOnViewsSaysTheSameOfEveryColumn) {
    const test::HostDatabase database;
    database.open();
    QORRdbmsTran transaction(ASAccess::Read);
    std::map<std::string, std::string> told;
    for (const QORViewColumn& column : readViews(*transaction)) {
        EXPECT_NE(viewMeaning(column.view), "") << column.view;
        told[column.view + "." + column.column] = viewColumnMeaning(column.view, column.column);
    }
    EXPECT_EQ(told, pageOfViews());
}

TEST(ViewDescriptions, IndexesAreToldByTheViewsOwnColumns) {
    const test::HostDatabase database;
    database.open();
    QORRdbmsTran transaction(ASAccess::Read);
    const auto beginsWith = [&](std::string_view view, const std::vector<std::string>& columns) {
        const std::vector<QORViewIndex> indexes = viewIndexes(*transaction, view);
        return std::any_of(indexes.begin(), indexes.end(), [&](const QORViewIndex& index) {
            return index.columns.size() >= columns.size() &&
                   std::equal(columns.begin(), columns.end(), index.columns.begin());
        });
    };
    EXPECT_TRUE(beginsWith("vOpLog", {"time"}));
    EXPECT_TRUE(beginsWith("vOpLog", {"eid", "time"}));
    EXPECT_TRUE(beginsWith("vEventLog", {"category", "eid", "time"}));
    EXPECT_TRUE(beginsWith("vEventLog", {"id"}));
    EXPECT_TRUE(beginsWith("vEnvironment", {"eid"}));
    EXPECT_TRUE(beginsWith("vBackupInfo", {"storage_eid", "time"}));
    EXPECT_FALSE(beginsWith("vOpLog", {"package"}));
    EXPECT_TRUE(viewIndexes(*transaction, "vNothing").empty());
}

TEST(ViewDescriptions, OfOtherViewsNothingIsKnown) {
    EXPECT_EQ(viewMeaning("vElse"), "");
    EXPECT_EQ(viewColumnMeaning("vElse", "id"), "");
    EXPECT_EQ(viewColumnMeaning("vOpLog", "else"), "");
}

}  // namespace
}  // namespace QOR
