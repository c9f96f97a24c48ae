/// \file
/// From the options of `qorctl select` to a request of the operator "pager2".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORMessage/QORNotation.h"
#include "QORQuery/QORQueryField.h"
#include "QORQuery/QORStoredForm.h"
#include "select/TimeBounds.h"

namespace QOR {

/// What the person asked for, as typed.
struct SelectOptions {
    std::string view;
    std::vector<std::string> fields;  ///< `column`, `"any column"` or `function(column)`
    std::optional<std::string> where;
    std::vector<std::string> sort;          ///< a field, behind '-' for descending order
    std::int64_t limit = 0;                 ///< rows of the page, 0 for all
    std::int64_t offset = 0;                ///< rows before the page
    std::optional<std::int64_t> timeout{};  ///< seconds within which the answer must come
    bool count = false;
    std::string counting{};  ///< how far all rows are counted, as a request says it; empty: not by this
    bool distinct = false;
    /// Ask as a client without full access that stands for these environments, the first being its own identity; the
    /// word "none" alone is a client without identities. Empty: ask as oneself.
    std::vector<std::string> client;
    TimeBounds bounds{};
    std::string within{};  ///< a further condition, which is not the person's own
};

/// A request, and how its answer is put before the person.
struct SelectRequest {
    QORRequestEnvelope envelope;
    struct Column {
        std::string name;  ///< in the answer
        QORQueryField field;
    };
    std::vector<Column> columns;  ///< as they were asked for
    bool ordered = false;         ///< the answer has them so; else in the order of their names
};

/// The client that --client describes; empty when nothing is given.
/// \throws CtlError BadUsage naming what is no environment
std::optional<QORClientDescription> makeClient(const std::vector<std::string>& eids);

/// \param now what times of the condition are told from \param types see QORConditionOptions
/// \throws CtlError BadUsage naming the option that cannot be meant; for the condition the text shows the place
SelectRequest makeSelectRequest(const SelectOptions& options, std::int64_t now, const QORColumnTypes& types = {});

}  // namespace QOR
