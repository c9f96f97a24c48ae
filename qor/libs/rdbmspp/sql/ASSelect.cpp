#include "rdbmspp/sql/ASSelect.h"

#include <utility>

#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASRestriction.h"
#include "rdbmspp/sql/ASSqlBuilder.h"
#include "rdbmspp/sql/ASSqlText.h"
#include "rdbmspp/sql/ASWrittenSelect.h"

namespace QOR {

bool ASProject::Item::isSame(const std::optional<ASAttribute>& otherAttribute,
                             const std::optional<ASGroupAttribute>& otherGroup) const {
    if (group) return otherGroup && group->Query() == otherGroup->Query();
    return otherAttribute && attribute->Query() == otherAttribute->Query();
}

const ASDomain* ASProject::domain() const noexcept {
    for (const auto& item : m_items) {
        if (const ASDomain* const domain = item->domain()) return domain;
    }
    return nullptr;
}

ASProject& ASProject::operator<<(const ASAttribute& attribute) {
    m_items.push_back(std::make_shared<const Item>(Item{attribute, std::nullopt}));
    return *this;
}

ASProject& ASProject::operator<<(const ASGroupAttribute& attribute) {
    m_items.push_back(std::make_shared<const Item>(Item{std::nullopt, attribute}));
    return *this;
}

ASProject& ASFilter::Project() {
    m_project = ASProject();
    return m_project;
}

ASProject& ASFilter::DistinctProject() {
    m_project = ASProject();
    m_project.m_distinct = true;
    return m_project;
}

void ASFilter::Set(const ASComparison& condition) {
    m_condition = condition;
}

void ASFilter::Restrict(const ASComparison& access) {
    m_access = access;
}

void ASSelect::Limit(std::int32_t size, std::int32_t offset) {
    m_written.reset();
    m_limit = size;
    m_offset = offset > 0 ? offset : 0;
}

void ASSelect::Order(const ASOrder& order) {
    m_written.reset();
    m_order = order;
}

void ASSelect::keepWritten() {
    m_written = std::make_shared<ASWrittenSelect>();
}

std::string ASSelect::Query(const ASDialect& dialect) const {
    ASSqlBuilder builder(dialect, ASPurpose::Reading);
    builder.select(*this, where(dialect));
    return std::move(builder).takeText();
}

ASComparison ASSelect::where(const ASDialect& dialect) const {
    return restricted(dialect, m_filter.m_access, m_filter.m_condition);
}

ASNestedSelect::ASNestedSelect(ASSelect select, const ASDialect& dialect)
    : m_select(std::move(select)), m_dialect(dialect), m_parserDepth(parserDepthOf(Query())) {}

std::string ASNestedSelect::Query() const {
    ASSqlBuilder builder(m_dialect, ASPurpose::Nested);
    builder.nested(*this);
    return std::move(builder).takeText();
}

}  // namespace QOR
