#include "commands/CountRows.h"

#include <span>
#include <string>
#include <utility>

#include "answer/AnswerReader.h"

namespace QOR {
namespace {

/// Passes the counts on, and no row.
class CountsAlone final : public RowSink {
public:
    void begin(std::span<const std::string>) override {}
    void row(std::span<const Cell>) override {}
    void end(const std::optional<RowCounts>& given) override { counts = given; }
    std::optional<RowCounts> counts;
};

}  // namespace

std::optional<RowCounts> countRows(Backend& backend, SelectOptions options, std::int64_t now,
                                   const QORColumnTypes& types) {
    options.limit = 1;
    options.offset = 0;
    options.sort.clear();
    options.count = false;
    options.counting = "200ms";
    const SelectRequest request = makeSelectRequest(options, now, types);
    std::string json;
    writeRequest(request.envelope, json);
    CountsAlone rows;
    const auto answer = backend.ask(json);
    readAnswer(*answer, rows);  // what is wrong is told by the request itself
    return rows.counts;
}

}  // namespace QOR
