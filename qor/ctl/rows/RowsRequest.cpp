#include "rows/RowsRequest.h"

#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "process/CtlError.h"
#include "select/RequestPage.h"
#include "select/SelectRequest.h"

namespace QOR {
namespace {

void addSort(QORBinaryIterator& at, std::string_view text) {
    const bool descending = text.starts_with('-');
    if (descending) text.remove_prefix(1);
    if (text.empty()) throw CtlError::usage("a sort key has no name");
    requireRoom(at.addChild(tag::sort));
    requireRoom(at.putValue(text, tag::field));
    if (descending) {
        requireRoom(at.addChild(tag::descending));
        requireRoom(at.seekUp());
    }
    requireRoom(at.seekUp());
}

}  // namespace

QORRequestEnvelope makeRowsRequest(const RowsOptions& options) {
    QORRequestEnvelope envelope;
    envelope.operatorName = "pager";
    envelope.requestName = "select";
    envelope.client = makeClient(options.client);
    QORBinaryIterator at = envelope.body.root();
    requireRoom(at.addChild(tag::select));
    for (const std::string& field : options.fields)
        requireRoom(at.putValue(field, tag::field));
    if (options.where) requireRoom(at.putValue(*options.where, tag::where));
    for (const std::string& sort : options.sort)
        addSort(at, sort);
    addPage(at, options.limit, options.offset);
    addTimeout(at, options.timeout);
    if (options.count) requireRoom(at.putInt(1, tag::statistics));
    if (!options.narrow) {
        requireRoom(at.addChild(tag::exact));
        requireRoom(at.seekUp());
    }
    return envelope;
}

}  // namespace QOR
