#include "commands/EnvironmentNames.h"

#include "QORCommon/QORTime.h"
#include "QORMessage/QORNotation.h"
#include "answer/AnswerReader.h"
#include "select/SelectRequest.h"

namespace QOR {
namespace {

/// Rows of eid, hostname and title.
class Names final : public RowSink {
public:
    explicit Names(std::map<std::string, std::string>& into) : m_into(into) {}
    void begin(std::span<const std::string>) override {}
    void row(std::span<const Cell> cells) override {
        const Cell& name = cells[1].bytes.empty() ? cells[2] : cells[1];
        if (!name.bytes.empty()) m_into.emplace(cells[0].bytes, name.bytes);
    }
    void end(const std::optional<RowCounts>&) override {}

private:
    std::map<std::string, std::string>& m_into;
};

}  // namespace

std::map<std::string, std::string> environmentNames(Backend& backend, const std::set<std::string>& eids,
                                                    const std::vector<std::string>& client) {
    std::map<std::string, std::string> names;
    if (eids.empty()) return names;
    SelectOptions options;
    options.view = "vEnvironment";
    options.fields = {"eid", "hostname", "title"};
    options.client = client;
    options.where = "eid in (";
    for (const std::string& eid : eids)
        *options.where += (eid == *eids.begin() ? "'" : ", '") + eid + "'";
    *options.where += ")";
    std::string json;
    writeRequest(makeSelectRequest(options, currentTime()).envelope, json);
    Names rows(names);
    ColumnOrder ordered(options.fields, rows);
    // A database without this view has no names.
    if (readAnswer(*backend.ask(json), ordered)) names.clear();
    return names;
}

}  // namespace QOR
