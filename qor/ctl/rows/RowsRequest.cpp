#include "rows/RowsRequest.h"

#include <limits>

#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "process/CtlError.h"
#include "select/SelectRequest.h"

namespace QOR {
namespace {

constexpr std::int64_t mostRows = std::numeric_limits<std::int32_t>::max();

void require(int status) {
    if (status != 0) throw CtlError::usage("the request is larger than a message may be");
}

void addSort(QORBinaryIterator& at, std::string_view text) {
    const bool descending = text.starts_with('-');
    if (descending) text.remove_prefix(1);
    if (text.empty()) throw CtlError::usage("a sort key has no name");
    require(at.addChild(tag::sort));
    require(at.putValue(text, tag::field));
    if (descending) {
        require(at.addChild(tag::descending));
        require(at.seekUp());
    }
    require(at.seekUp());
}

/// An offset alone asks for all that follows: the operator takes an offset only with a size.
void addLimit(QORBinaryIterator& at, const RowsOptions& options) {
    const std::int64_t limit = options.limit == 0 && options.offset > 0 ? mostRows : options.limit;
    if (limit < 0 || limit > mostRows)
        throw CtlError::usage("--limit must lie between 0 and " + std::to_string(mostRows));
    if (options.offset < 0 || options.offset > mostRows)
        throw CtlError::usage("--offset must lie between 0 and " + std::to_string(mostRows));
    if (limit == 0) return;
    require(at.addChild(tag::limit));
    require(at.putInt(static_cast<std::int32_t>(limit), tag::size));
    if (options.offset > 0) require(at.putInt(static_cast<std::int32_t>(options.offset), tag::offset));
    require(at.seekUp());
}

}  // namespace

QORRequestEnvelope makeRowsRequest(const RowsOptions& options) {
    QORRequestEnvelope envelope;
    envelope.operatorName = "pager";
    envelope.requestName = "select";
    envelope.client = makeClient(options.client);
    QORBinaryIterator at = envelope.body.root();
    require(at.addChild(tag::select));
    for (const std::string& field : options.fields)
        require(at.putValue(field, tag::field));
    if (options.where) require(at.putValue(*options.where, tag::where));
    for (const std::string& sort : options.sort)
        addSort(at, sort);
    addLimit(at, options);
    if (options.count) require(at.putInt(1, tag::statistics));
    return envelope;
}

}  // namespace QOR
