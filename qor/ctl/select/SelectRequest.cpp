#include "select/SelectRequest.h"

#include <algorithm>

#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORQuery/QORCondition.h"
#include "QORQuery/QORQueryField.h"
#include "output/QueryErrorText.h"
#include "process/CtlError.h"
#include "select/RequestPage.h"

namespace QOR {
namespace {

/// Levels that select and where elements take of a message.
constexpr std::size_t levelsAboveCondition = 2;
/// A SID that stands for an environment: principal 0 of type 1.
constexpr int environmentPrincipal = 0;
constexpr int environmentPrincipalType = 1;

class SelectBuilder {
public:
    SelectBuilder(const SelectOptions& options, std::int64_t now, const QORColumnTypes& types)
        : m_options(options), m_now(now), m_types(types), m_at(m_request.envelope.body.root()) {}

    SelectRequest build() {
        m_request.envelope.operatorName = "pager2";
        m_request.envelope.requestName = "select";
        requireRoom(m_at.addChild(tag::select));
        requireRoom(m_at.putValue(m_options.view, tag::view));
        for (const std::string& field : m_options.fields)
            addField(field);
        m_request.ordered = isOrdered();
        if (m_request.ordered) addFlag(tag::ordered);
        if (m_options.distinct) addFlag(tag::distinct);
        addConditions();
        for (const std::string& sort : m_options.sort)
            addSort(sort);
        addPage(m_at, m_options.limit, m_options.offset);
        addTimeout(m_at, m_options.timeout);
        if (m_options.count) addFlag(tag::statistics);
        if (!m_options.counting.empty()) requireRoom(m_at.putValue(m_options.counting, tag::count));
        addClient();
        for (QORQueryField& field : m_fields) {
            std::string name = m_request.ordered ? answerName(field) : field.column;
            m_request.columns.push_back({std::move(name), std::move(field)});
        }
        return std::move(m_request);
    }

private:
    void addFlag(QORTag flag) {
        requireRoom(m_at.addChild(flag));
        requireRoom(m_at.seekUp());
    }

    /// An answer keeps the request's order where it is told to. All rows of a view, in any order, come without, since
    /// an order costs time and memory.
    bool isOrdered() const {
        if (!m_options.sort.empty() || m_options.limit > 0 || m_options.offset > 0) return true;
        return std::any_of(m_fields.begin(), m_fields.end(), [this](const QORQueryField& field) {
            return !field.function.empty() || std::count(m_fields.begin(), m_fields.end(), field) > 1;
        });
    }

    void addField(const std::string& text) {
        QORQueryField field = parseQueryField(text);
        if (field.column.empty()) throw CtlError::usage("a field has no name: " + quoteText(text));
        if (!field.function.empty() && field.column == "*")
            throw CtlError::usage(quoteText(text) + ": an aggregate needs a column, for example " + field.function +
                                  "(eid)");
        requireRoom(putQueryField(m_at, field));
        m_fields.push_back(std::move(field));
    }

    /// The person's own is read by itself, so that a mistake is shown at its place and nothing of it reaches beyond it.
    void addConditions() {
        if (m_options.where && !m_options.within.empty()) {
            QORMessage apart;
            QORBinaryIterator at = apart.root();
            requireRoom(at.addChild(tag::where));
            readCondition(*m_options.where, at);
        }
        if (!m_options.where && m_options.within.empty()) return;
        requireRoom(m_at.addChild(tag::where));
        readCondition(m_options.within.empty() ? *m_options.where
                                               : joinConditions(m_options.where.value_or(""), m_options.within),
                      m_at);
        requireRoom(m_at.seekUp());
    }

    void readCondition(const std::string& text, const QORBinaryIterator& at) const {
        try {
            const std::size_t levels = m_request.envelope.body.limits().depth - levelsAboveCondition;
            parseCondition(text, {.view = m_options.view, .levels = levels, .types = m_types, .now = m_now}, at);
        } catch (const QORQueryError& error) {
            throw CtlError::usage("--where: " + describeQueryError(text, error));
        } catch (const QORException& error) {
            throw CtlError::usage("--where: " + error.message());
        }
    }

    void addSort(std::string_view text) {
        const bool descending = text.starts_with('-');
        if (descending) text.remove_prefix(1);
        const QORQueryField key = parseQueryField(text);
        if (key.column.empty()) throw CtlError::usage("a sort key has no name");
        if (!key.function.empty() && std::find(m_fields.begin(), m_fields.end(), key) == m_fields.end())
            throw CtlError::usage("sorting by " + quoteText(text) + " needs it among the fields (-f)");
        const std::string name = answerName(key);
        if (std::find(m_sort.begin(), m_sort.end(), name) != m_sort.end())
            throw CtlError::usage("the sort key " + quoteText(name) + " is given twice");
        requireRoom(m_at.addChild(tag::sort));
        requireRoom(m_at.putValue(name, tag::field));
        if (descending) addFlag(tag::descending);
        requireRoom(m_at.seekUp());
        m_sort.push_back(name);
    }

    void addClient() { m_request.envelope.client = makeClient(m_options.client); }

    const SelectOptions& m_options;
    std::int64_t m_now;
    const QORColumnTypes& m_types;
    SelectRequest m_request;
    QORBinaryIterator m_at;
    std::vector<QORQueryField> m_fields;
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

SelectRequest makeSelectRequest(const SelectOptions& options, std::int64_t now, const QORColumnTypes& types) {
    return SelectBuilder(options, now, types).build();
}

}  // namespace QOR
