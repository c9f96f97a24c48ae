#include "select/RequestPage.h"

#include <limits>
#include <string_view>

#include "QORCommon/QORText.h"
#include "QORQuery/QORQueryField.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

constexpr std::int64_t mostRows = std::numeric_limits<std::int32_t>::max();

void requireRows(const char* option, std::int64_t rows) {
    if (rows < 0 || rows > mostRows)
        throw CtlError::usage(option + (" must lie between 0 and " + std::to_string(mostRows)));
}

}  // namespace

void requireRoom(int status) {
    if (status != 0) throw CtlError::usage("the request is larger than a message may be");
}

std::vector<std::string> splitFields(const std::vector<std::string>& lists) {
    std::vector<std::string> fields;
    for (const std::string& list : lists) {
        for (const std::string_view field : splitQueryList(list)) {
            if (field.empty()) throw CtlError::usage("a field has no name: " + quoteText(list));
            fields.emplace_back(field);
        }
    }
    return fields;
}

void addPage(QORBinaryIterator& at, std::int64_t limit, std::int64_t offset) {
    requireRows("--limit", limit);
    requireRows("--offset", offset);
    if (limit == 0 && offset == 0) return;
    requireRoom(at.addChild(tag::limit));
    requireRoom(at.putInt(static_cast<std::int32_t>(limit == 0 ? mostRows : limit), tag::size));
    if (offset > 0) requireRoom(at.putInt(static_cast<std::int32_t>(offset), tag::offset));
    requireRoom(at.seekUp());
}

void addTimeout(QORBinaryIterator& at, std::optional<std::int64_t> seconds) {
    if (seconds) requireRoom(at.putInt(static_cast<std::int32_t>(*seconds * 1000), tag::deadline));
}

}  // namespace QOR
