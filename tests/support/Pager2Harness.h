/// \file
/// Runs requests of operator "pager2" in this process, through its factory, against a real database over ODBC.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/OperatorClient.h"
#include "support/TestDatabase.h"

namespace QOR::test {

/// The answer with tag names replaced by their numbers, so that expectations may be written with names.
inline std::string normalized(std::string_view answer) {
    const QORResponse response = readResponse(answer);
    std::string text;
    writeResponse(response.response, text);
    if (response.error) {
        std::string error;
        writeErrorResponse(response.error->code, response.error->message, error);
        text += " error " + error;
    }
    return text;
}

/// The values of a result, row by row; nulls as "<null>". Throws when the answer holds an error.
inline std::vector<std::vector<std::string>> valuesOf(std::string_view answer) {
    QORResponse response = readResponse(answer);
    if (response.error) throw std::runtime_error(response.error->message);
    std::vector<std::vector<std::string>> rows;
    QORBinaryIterator it = response.response.root();
    if (it.firstChild(tag::rowSet) != 0 || it.firstChild(tag::row) != 0) return rows;
    do {
        auto& row = rows.emplace_back();
        QORBinaryIterator cell = it;
        if (cell.firstChild(tag::value) != 0) continue;
        do {
            std::string text;
            row.push_back(cell.getValue(text) == 0 ? text : "<null>");
        } while (cell.nextSibling(tag::value) == 0);
    } while (it.nextSibling(tag::row) == 0);
    return rows;
}

/// Points the process's database at the test's.
inline void openDatabase(const TestDatabase& database, bool readOnly = false) {
    ASDatabaseOptions options;
    options.connectionString = database.connectionString();
    options.readOnly = readOnly;
    options.busyTimeoutMs = 200;
    QORRdbms::instance().configure(options);
}

}  // namespace QOR::test
