#include "select/SelectRequest.h"

#include <algorithm>
#include <limits>

#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "process/CtlError.h"
#include "where/FieldSpec.h"
#include "where/WhereError.h"
#include "where/WhereParser.h"

namespace QOR {
namespace {

constexpr std::int64_t mostRows = std::numeric_limits<std::int32_t>::max();
/// Levels that select and where elements take of a message.
constexpr std::size_t levelsAboveCondition = 2;
/// A SID that stands for an environment: principal 0 of type 1.
constexpr int environmentPrincipal = 0;
constexpr int environmentPrincipalType = 1;

void require(int status) {
    if (status != 0) throw CtlError::usage("the request is larger than a message may be");
}

class SelectBuilder {
public:
    SelectBuilder(const SelectOptions& options, const ColumnTypes& types)
        : m_options(options), m_types(types), m_at(m_request.envelope.body.root()) {}

    SelectRequest build() {
        m_request.envelope.operatorName = "pager2";
        m_request.envelope.requestName = "select";
        require(m_at.addChild(tag::select));
        require(m_at.putValue(m_options.view, tag::view));
        for (const std::string& field : m_options.fields)
            addField(field);
        if (m_options.distinct) addFlag(tag::distinct);
        if (m_options.where) addWhere(*m_options.where);
        for (const std::string& sort : m_options.sort)
            addSort(sort);
        noteSortOrder();
        addLimit();
        if (m_options.count) addFlag(tag::statistics);
        addClient();
        return std::move(m_request);
    }

private:
    void addFlag(QORTag flag) {
        require(m_at.addChild(flag));
        require(m_at.seekUp());
    }

    /// The answer knows a column by its name alone, so two fields over one column would be one.
    void addField(const std::string& text) {
        FieldSpec field = parseFieldSpec(text);
        if (field.column.empty()) throw CtlError::usage("a field has no name: " + quoteText(text));
        if (!field.function.empty() && field.column == "*")
            throw CtlError::usage(quoteText(text) + ": an aggregate needs a column, for example " + field.function +
                                  "(eid)");
        const auto before = std::find_if(m_fields.begin(), m_fields.end(),
                                         [&](const FieldSpec& other) { return other.column == field.column; });
        if (before != m_fields.end()) {
            if (*before == field) return;
            throw CtlError::usage("the column " + quoteText(field.column) +
                                  " is asked for in two ways; an answer holds it once, so ask in two requests");
        }
        if (field.function.empty()) {
            require(m_at.putValue(field.column, tag::field));
        } else {
            require(m_at.addChild(tag::field));
            require(m_at.addChild(tag::function));
            require(m_at.putValue(field.function, tag::name));
            require(m_at.putValue(field.column, tag::field));
            require(m_at.seekUp());
            require(m_at.seekUp());
        }
        m_request.columns.push_back(field.column);
        m_fields.push_back(std::move(field));
    }

    void addWhere(const std::string& text) {
        require(m_at.addChild(tag::where));
        try {
            const std::size_t levels = m_request.envelope.body.limits().depth - levelsAboveCondition;
            parseWhere(text, m_options.view, levels, m_at, m_types);
        } catch (const WhereError& error) {
            throw CtlError::usage("--where: " + describeWhereError(text, error));
        } catch (const QORException& error) {
            throw CtlError::usage("--where: " + error.message());
        }
        require(m_at.seekUp());
    }

    void addSort(std::string_view text) {
        const bool descending = text.starts_with('-');
        if (descending) text.remove_prefix(1);
        const FieldSpec key = parseFieldSpec(text);
        if (key.column.empty()) throw CtlError::usage("a sort key has no name");
        if (!key.function.empty() && std::find(m_fields.begin(), m_fields.end(), key) == m_fields.end())
            throw CtlError::usage("sorting by " + quoteText(text) + " needs it among the fields (-f)");
        if (std::find(m_sort.begin(), m_sort.end(), key.column) != m_sort.end())
            throw CtlError::usage("the sort key " + quoteText(key.column) + " is given twice");
        require(m_at.addChild(tag::sort));
        require(m_at.putValue(key.column, tag::field));
        if (descending) addFlag(tag::descending);
        require(m_at.seekUp());
        m_sort.push_back(key.column);
    }

    /// Sort keys apply in the order of their names, which is part of the operator's contract.
    void noteSortOrder() {
        if (std::is_sorted(m_sort.begin(), m_sort.end())) return;
        std::vector<std::string> order = m_sort;
        std::sort(order.begin(), order.end());
        std::string note = "sort keys apply in the order of their names: by " + quoteText(order.front());
        for (std::size_t at = 1; at < order.size(); ++at)
            note += ", then " + quoteText(order[at]);
        m_request.notes.push_back(std::move(note));
    }

    /// An offset alone asks for all that follows: the operator takes an offset only with a size.
    void addLimit() {
        const std::int64_t limit = m_options.limit == 0 && m_options.offset > 0 ? mostRows : m_options.limit;
        if (limit < 0 || limit > mostRows)
            throw CtlError::usage("--limit must lie between 0 and " + std::to_string(mostRows));
        if (m_options.offset < 0 || m_options.offset > mostRows)
            throw CtlError::usage("--offset must lie between 0 and " + std::to_string(mostRows));
        if (limit == 0) return;
        require(m_at.addChild(tag::limit));
        require(m_at.putInt(static_cast<std::int32_t>(limit), tag::size));
        if (m_options.offset > 0) require(m_at.putInt(static_cast<std::int32_t>(m_options.offset), tag::offset));
        require(m_at.seekUp());
    }

    void addClient() { m_request.envelope.client = makeClient(m_options.client); }

    const SelectOptions& m_options;
    const ColumnTypes& m_types;
    SelectRequest m_request;
    QORBinaryIterator m_at;
    std::vector<FieldSpec> m_fields;
    std::vector<std::string> m_sort;
};

}  // namespace

std::optional<QORClientDescription> makeClient(const std::vector<std::string>& eids) {
    if (eids.empty()) return std::nullopt;
    QORClientDescription client;
    if (eids == std::vector<std::string>{"none"}) return client;
    for (const std::string& text : eids) {
        const auto guid = QORGUIDBase::parse(text);
        if (!guid || !guid->isValid())
            throw CtlError::usage("--client: " + quoteText(text) +
                                  " is not the GUID of an environment (\"none\" alone means no identity)");
        client.sids.push_back({environmentPrincipal, environmentPrincipalType, QOREID(*guid)});
    }
    return client;
}

SelectRequest makeSelectRequest(const SelectOptions& options, const ColumnTypes& types) {
    return SelectBuilder(options, types).build();
}

}  // namespace QOR
