/// \file
/// Internal: writes selects and conditions as SQL for one engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/engine/ASValue.h"
#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASSelect.h"
#include "rdbmspp/sql/ASSpread.h"

namespace QOR {

/// A column, qualified where it belongs to a domain.
void appendColumn(std::string& out, const ASAttribute& column);
/// An attribute where an operand stands: a select, or SQL that would fall apart there, in brackets.
void appendOperand(std::string& out, const ASAttribute& attribute);

/// What a text is written for.
enum class ASPurpose : unsigned char {
    Reading,    ///< by people, or as a part of another text: values are literals
    Nested,     ///< as Reading, but a whole select inside another: what it selects is compared, not read
    Execution,  ///< values are `?`; columns are selected so that the driver hands out all of their bytes
    Streaming,  ///< as Execution, but values are literals: parameters keep the driver from handing out rows as they
                ///< come
};

/// Writes into a text that it owns. For ASPurpose::Execution the values are listed in the order of their marks; they
/// point into the conditions rendered, which must outlive their use. Used by one thread.
class ASSqlBuilder {
public:
    /// \param exactSums sums that do not fail on numbers which add up beyond 64 bits on the way or in the end; they
    /// cost several times as much \param spare a text whose memory is used
    ASSqlBuilder(const ASDialect& dialect, ASPurpose purpose, bool exactSums = false, std::string spare = {});

    /// A whole select. \throws AException when nothing with a domain is projected, or the engine cannot take it
    /// \param where the select's condition, restricted as it says
    void select(const ASSelect& select, const ASComparison& where);
    /// A select that stands in another one's condition.
    void nested(const ASNestedSelect& nested);
    /// A condition; nothing for none.
    void condition(const ASComparison& condition);

    void append(std::string_view sql) { m_text += sql; }
    /// SQL of the host's own in a text of its own, into which nobody looks.
    void appendRaw(std::string_view sql) {
        append(sql);
        m_computes = true;
    }
    void column(const ASAttribute& attribute) { appendColumn(m_text, attribute); }
    void operand(const ASAttribute& attribute);
    /// \param projected whether it is given to the driver
    void aggregate(const ASGroupAttribute& attribute, bool projected = false);
    /// Only for an engine that is not typed.
    void value(const ASValue& value);
    /// For one that is: a value of this type of the engine's.
    void typedValue(const ASValue& value, const char* type);
    /// Holds a value as long as the builder lives.
    const ASValue& keep(ASValue value) { return m_kept.emplace_back(std::move(value)); }
    void identifier(std::string_view name) { appendQuoted(m_text, name, '"'); }
    void in(const ASAttribute& attribute, std::string_view list, bool negated);
    void in(const ASAttribute& attribute, const ASNestedSelect& select, bool negated);
    /// \param column a pattern that is no literal, or null \throws AException for a pattern that is longer than is
    /// taken, or an escape character that cannot be one
    void checkPattern(const ASAttribute* column, const ASValue& pattern, char escape) const;
    void like(const ASAttribute& attribute, const ASAttribute* column, const ASValue& pattern, char escape,
              bool negated);

    const std::string& text() const noexcept { return m_text; }
    std::string takeText() && { return std::move(m_text); }
    const std::vector<const ASValue*>& parameters() const noexcept { return m_parameters; }
    /// Whether what is selected from may compute something: a view that is not known to only hand out what is stored.
    bool computes() const noexcept { return m_computes; }
    const ASDialect& dialect() const noexcept { return m_dialect; }
    /// Whether some rows are looked for elsewhere than in the database itself.
    bool isElsewhere() const noexcept { return !m_asked.empty(); }
    /// The schemas in which they are looked for, for people.
    const std::string& asked() const noexcept { return m_asked; }
    /// Who knows where they are looked for, and what he said; null where that is nowhere else.
    ASSpread* spread() const noexcept { return isElsewhere() ? m_spread : nullptr; }
    const std::shared_ptr<const ASPlaces>& places() const noexcept { return m_places; }
    /// Whether the same would be written now: how rows are divided among places may change at any time.
    bool isLasting() const { return m_spread == nullptr || (m_places == nullptr && m_spread->places() == nullptr); }
    /// What is written stands within another select.
    bool isNested() const noexcept { return m_purpose == ASPurpose::Nested; }

private:
    bool isExecuted() const noexcept { return m_purpose == ASPurpose::Execution || m_purpose == ASPurpose::Streaming; }
    void parameter(const ASValue& value);
    void selected(const ASSelect& select, const ASComparison& where);
    void likeColumn(const ASAttribute& pattern);
    void distinct(const ASSelect& select, const ASComparison& where);
    static const ASAttribute* columnIn(const ASProject::Item& item);
    void distinctItem(const ASProject::Item& item);
    void rows(const ASSelect& select, const ASComparison& where);
    void direction(bool descending);
    void nestedAggregate(const ASGroupAttribute& attribute);
    bool isDecimalSum(const ASGroupAttribute& attribute) const;
    std::string decimalSum(const ASGroupAttribute& attribute, bool projected) const;
    bool isExactSum(const ASGroupAttribute& attribute) const;
    std::string exactSum(const ASGroupAttribute& attribute) const;
    void projection(const ASProject& project);
    void projectedAttribute(const ASAttribute& attribute);
    void projectedAggregate(const ASGroupAttribute& attribute);
    void from(const ASProject& project, const ASComparison& where);
    void fromView(const ASDomain& domain, const ASComparison& where);
    const ASPlaces* placesOf(const ASDomain& domain);
    void placed(const ASDomain& domain, const std::string& schema);
    bool isPage(const ASSelect& select) const;
    static bool isCount(const ASSelect& select);
    bool spread(const ASSelect& select, const ASComparison& where);
    void spreadPage(const ASSelect& select, const ASComparison& where, const ASDomain& domain,
                    const std::vector<std::size_t>& places);
    void spreadCount(const ASSelect& select, const ASComparison& where, const ASDomain& domain,
                     const std::vector<std::size_t>& places);
    template <class Write>
    void together(const ASDomain& domain, const std::vector<std::size_t>& places, Write write);
    void placeRows(const ASFilter& filter, const ASComparison& where, const ASDomain& domain, std::size_t place);
    void filtered(const ASFilter& filter, const ASComparison& where);
    void groupBy(const ASProject& project);
    void orderBy(const ASOrder& order);
    void page(std::int32_t limit, std::int32_t offset);
    void pageNumber(std::int32_t number);
    void openIn(const ASAttribute& attribute, bool negated);

    const ASDialect& m_dialect;
    ASPurpose m_purpose;
    const bool m_executes;
    bool m_exactSums;
    bool m_computes = false;
    std::string m_text;
    std::vector<const ASValue*> m_parameters;
    std::deque<ASValue> m_kept;
    std::string m_asked;
    ASSpread* m_spread = nullptr;
    std::shared_ptr<const ASPlaces> m_places;  ///< of m_spread, where rows are looked for
    std::deque<ASComparison> m_conditions;     ///< of nested selects, whose values are parameters
};

}  // namespace QOR
