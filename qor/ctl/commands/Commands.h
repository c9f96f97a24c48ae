/// \file
/// What the commands do once the command line has been read. Each writes its results to standard output, everything
/// else to standard error, and ends by returning or by throwing QORCtlError or QORBrokenPipe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "backend/Backend.h"
#include "ingest/QORSampleData.h"
#include "output/RowPrinter.h"
#include "process/CtlError.h"
#include "rows/RowsRequest.h"
#include "select/SelectRequest.h"

namespace QOR {

/// How rows are printed.
struct QORPrintOptions {
    QORRowFormat format = QORRowFormat::Table;
    std::optional<std::size_t> width;  ///< of tables; absent: the terminal's, none where there is no terminal
};

struct QORRequestOptions {
    std::string file;  ///< empty or "-": standard input
    bool lines = false;
};

struct QORViewsOptions {
    std::vector<std::string> views;  ///< empty: all
    QORPrintOptions print;
};

struct QORFieldsOptions {
    std::vector<std::string> prefixes;  ///< only names that begin with one of these; empty: all
    QORPrintOptions print;
};

/// How storing many records is reported.
struct QORReportOptions {
    bool progress = false;  ///< also where standard error is no terminal
    bool verbose = false;   ///< every refused line, not only the first
};

struct QORImportOptions {
    std::string file;  ///< empty or "-": standard input
    QORReportOptions report;
};

struct QORSampleCommandOptions {
    QORSampleOptions sample;
    std::optional<std::string> output;  ///< written here ("-": standard output) instead of stored
    QORReportOptions report;
};

struct QORSecurityCommandOptions {
    std::uint64_t requests = 20'000;
    std::uint64_t seed = 1;
};

struct QORCheckOptions {
    bool mend = false;
};

struct QORPruneOptions {
    std::string before;  ///< a time, or an age such as 30d
    bool operations = false;
    bool events = false;
    bool backups = false;  ///< none of the three: all
    bool compact = false;
    bool progress = false;  ///< also where standard error is no terminal
};

void runSelect(const QORConnectionOptions& connection, const QORSelectOptions& options, const QORPrintOptions& print);
void runRows(const QORConnectionOptions& connection, const QORRowsOptions& options, const QORPrintOptions& print);
void runRequest(const QORConnectionOptions& connection, const QORRequestOptions& options);
void runViews(const QORConnectionOptions& connection, const QORViewsOptions& options);
void runFields(const QORConnectionOptions& connection, const QORFieldsOptions& options);
void runStatus(const QORConnectionOptions& connection, const QORPrintOptions& print);
void runCheck(const QORConnectionOptions& connection, const QORCheckOptions& options);
void runPrune(const QORConnectionOptions& connection, const QORPruneOptions& options);
void runImport(const QORConnectionOptions& connection, const QORImportOptions& options);
void runSample(const QORConnectionOptions& connection, const QORSampleCommandOptions& options);
void runCollect(const QORConnectionOptions& connection);
/// Proves on a copy of the database that row security holds. Throws AnsweredError when it does not.
void runSelfCheckSecurity(const QORConnectionOptions& connection, const QORSecurityCommandOptions& options);

}  // namespace QOR
