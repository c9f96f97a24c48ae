// Selects from views whose rows lie in several places. The engine asks each of them for its rows, but not for fewer
// than all that it may have to look at: it passes on neither how many are wanted nor that they are only counted, unless
// each place is asked for that by itself.

#include <algorithm>
#include <numeric>
#include <set>
#include <utility>

#include "rdbmspp/engine/AException.h"
#include "rdbmspp/sql/ASSqlBuilder.h"
#include "rdbmspp/sql/ASSqlText.h"

namespace QOR {

namespace {

using Node = ASComparison::Node;

// Of a page further back each place would have to send all rows before it. The engine takes them as it needs them.
constexpr std::int64_t mostOfEach = 10'000;
// Columns of whichever places are asked bear names of their own.
constexpr const char* counted = "n";

std::string numbered(std::size_t number) {
    return counted + std::to_string(number);
}

/// The values that a term of a conjunction lets a key have; nothing where it does not say.
std::optional<std::vector<std::optional<std::string>>> keysOf(const Node& term) {
    std::vector<std::optional<std::string>> keys;
    if (term.kind == Node::Kind::IsNull) return std::vector{std::optional<std::string>()};
    if (term.kind == Node::Kind::Value && term.op == Node::Op::Eq && term.value.kind == ASValue::Kind::Text) {
        return std::vector{std::optional(term.value.text)};
    }
    if (term.kind != Node::Kind::In || term.second || !term.items.empty() || !isLiteralList(term.value.text)) return {};
    for (const std::string_view item : listItems(term.value.text))
        keys.push_back(literalText(item));
    return keys;
}

/// The places in which there may be rows for which the condition holds, one at least.
std::vector<std::size_t> placesFor(const ASPlaces& places, const ASDomain& domain, const ASComparison& where) {
    std::vector<std::size_t> all(places.count());
    std::iota(all.begin(), all.end(), std::size_t{0});
    std::vector<const Node*> pending;
    if (!where.empty()) pending.push_back(where.node().get());
    while (!pending.empty()) {
        const Node& node = *pending.back();
        pending.pop_back();
        if (node.kind == Node::Kind::And) {
            pending.push_back(node.left.get());
            pending.push_back(node.right.get());
            continue;
        }
        if (!node.first || !node.first->isColumn() || !places.isKey(domain.name(), node.first->name())) continue;
        const auto keys = keysOf(node);
        if (!keys) continue;
        std::set<std::optional<std::size_t>> found;
        for (const auto& key : *keys)
            found.insert(places.placeOf(key));
        if (found.contains(std::nullopt)) continue;
        std::erase_if(all, [&](std::size_t place) { return !found.contains(place); });
    }
    if (all.empty()) all.push_back(0);
    return all;
}

}  // namespace

const ASPlaces* ASSqlBuilder::placesOf(const ASDomain& domain) {
    if (!m_executes || domain.spread() == nullptr) return nullptr;
    if (m_spread == nullptr) {
        m_spread = domain.spread();
        m_places = m_spread->places();
    }
    return m_places.get();
}

void ASSqlBuilder::placed(const ASDomain& domain, const std::string& schema) {
    if (m_asked.find(schema) == std::string::npos) m_asked += (m_asked.empty() ? "" : ", ") + schema;
    identifier(schema);
    append(".");
    identifier(domain.name());
}

void ASSqlBuilder::fromView(const ASDomain& domain, const ASComparison& where) {
    const ASPlaces* const places = placesOf(domain);
    const bool longRead = m_purpose == ASPurpose::Streaming;
    if (places == nullptr || !places->hasAll(domain.name())) return identifier(domain.name());
    if (!places->hasEach(domain.name())) return placed(domain, places->schemaOfAll(longRead));
    const std::vector<std::size_t> wanted = placesFor(*places, domain, where);
    if (wanted.size() == 1) return placed(domain, places->schemaOf(wanted.front(), longRead));
    if (wanted.size() == places->count()) return placed(domain, places->schemaOfAll(longRead));
    const char* separator = "(";
    for (const std::size_t place : wanted) {
        append(std::exchange(separator, " UNION ALL "));
        append("SELECT * FROM ");
        placed(domain, places->schemaOf(place, longRead));
    }
    append(") AS ");
    identifier(domain.name());
}

/// A page of rows, of which each place is asked for no more than may be on it.
bool ASSqlBuilder::isPage(const ASSelect& select) const {
    const auto isColumn = [](const auto& item) { return !item->group && item->attribute->isColumn(); };
    const auto& items = select.m_filter.m_project.m_items;
    if (select.m_limit <= 0 || select.m_filter.m_project.m_distinct) return false;
    if (!std::all_of(items.begin(), items.end(), isColumn)) return false;
    return !select.m_order || std::all_of(select.m_order->m_keys.begin(), select.m_order->m_keys.end(), isColumn);
}

bool ASSqlBuilder::isCount(const ASSelect& select) {
    const auto& items = select.m_filter.m_project.m_items;
    return std::all_of(items.begin(), items.end(), [](const auto& item) {
        return item->group && item->group->function() == ASGroupAttribute::Function::Count;
    });
}

/// \returns false where it is written like any other select
bool ASSqlBuilder::spread(const ASSelect& select, const ASComparison& where) {
    const ASDomain* const domain = select.m_filter.m_project.domain();
    if (domain == nullptr || !domain->derivedSql().empty()) return false;
    const ASPlaces* const places = placesOf(*domain);
    if (places == nullptr || !places->hasEach(domain->name())) return false;
    const std::vector<std::size_t> wanted = placesFor(*places, *domain, where);
    const bool count = isCount(select);
    const bool page =
        isPage(select) && (wanted.size() == 1 || std::int64_t{select.m_limit} + select.m_offset <= mostOfEach);
    if (!count && !page) return false;
    m_computes = !domain->handsOutOnly();  // nothing has been written before
    const std::size_t text = m_text.size();
    const std::size_t parameters = m_parameters.size();
    try {
        count ? spreadCount(select, where, *domain, wanted) : spreadPage(select, where, *domain, wanted);
    } catch (const AException&) {
        // Written once, the condition may hold few enough values for the engine.
        if (wanted.size() == 1) throw;
        m_text.resize(text);
        m_parameters.resize(parameters);
        return false;
    }
    return true;
}

/// What is written for each place, together under the view's name.
template <class Write>
void ASSqlBuilder::together(const ASDomain& domain, const std::vector<std::size_t>& places, Write write) {
    const char* separator = " FROM (";
    for (const std::size_t place : places) {
        append(std::exchange(separator, " UNION ALL "));
        append("(");
        write(place);
        append(")");
    }
    append(") AS ");
    identifier(domain.reference());
}

void ASSqlBuilder::placeRows(const ASFilter& filter, const ASComparison& where, const ASDomain& domain,
                             std::size_t place) {
    append(" FROM ");
    placed(domain, m_places->schemaOf(place, m_purpose == ASPurpose::Streaming));
    filtered(filter, where);
}

void ASSqlBuilder::spreadPage(const ASSelect& select, const ASComparison& where, const ASDomain& domain,
                              const std::vector<std::size_t>& places) {
    const ASFilter& filter = select.m_filter;
    const bool alone = places.size() == 1;
    std::vector<const ASAttribute*> columns;
    const auto want = [&](const ASAttribute& attribute) {
        const bool known = std::any_of(columns.begin(), columns.end(),
                                       [&](const ASAttribute* one) { return one->name() == attribute.name(); });
        if (!known) columns.push_back(&attribute);
    };
    for (const auto& item : filter.m_project.m_items)
        want(*item->attribute);
    if (select.m_order) {
        for (const auto& key : select.m_order->m_keys)
            want(*key->attribute);
    }
    append("SELECT ");
    projection(filter.m_project);
    together(domain, places, [&](std::size_t place) {
        const char* separator = "SELECT ";
        for (const ASAttribute* const attribute : columns) {
            append(std::exchange(separator, ", "));
            column(*attribute);
        }
        placeRows(filter, where, domain, place);
        if (select.m_order) orderBy(*select.m_order);
        alone ? page(select.m_limit, select.m_offset) : page(select.m_limit + select.m_offset, 0);
    });
    if (select.m_order) orderBy(*select.m_order);
    if (!alone) page(select.m_limit, select.m_offset);
}

void ASSqlBuilder::spreadCount(const ASSelect& select, const ASComparison& where, const ASDomain& domain,
                               const std::vector<std::size_t>& places) {
    const auto& items = select.m_filter.m_project.m_items;
    for (std::size_t i = 0; i < items.size(); ++i) {
        append(i == 0 ? "SELECT CAST(sum(" : ", CAST(sum(");
        identifier(numbered(i));
        append(") AS bigint)");
    }
    together(domain, places, [&](std::size_t place) {
        for (std::size_t i = 0; i < items.size(); ++i) {
            append(i == 0 ? "SELECT " : ", ");
            aggregate(*items[i]->group);
            append(" AS ");
            identifier(numbered(i));
        }
        placeRows(select.m_filter, where, domain, place);
    });
    if (select.m_limit > 0) page(select.m_limit, select.m_offset);
}

}  // namespace QOR
