#include "QORLibLocal/QORVocabulary.h"

#include <algorithm>

#include "QORCommon/QORNoDestructor.h"
#include "QORCommon/QORNumbers.h"

namespace QOR {
namespace {

constexpr int failed = -1;

}  // namespace

int QORVocIterator::firstParameter() noexcept {
    m_at = 0;
    return m_parameters != nullptr && !m_parameters->empty() ? 0 : failed;
}

int QORVocIterator::nextParameter() noexcept {
    if (m_parameters == nullptr || m_at + 1 >= m_parameters->size()) return failed;
    ++m_at;
    return 0;
}

const QORVocParameter* QORVocIterator::current() const noexcept {
    return m_parameters != nullptr && m_at < m_parameters->size() ? &(*m_parameters)[m_at] : nullptr;
}

int QORVocIterator::getID(std::string& out) const {
    const QORVocParameter* const parameter = current();
    if (parameter == nullptr || parameter->id.empty()) return failed;
    out = parameter->id;
    return 0;
}

int QORVocIterator::getValue(std::string& out, QORTag id) const {
    return getString(QORTagDictionary::instance().name(id), out);
}

int QORVocIterator::getString(std::string_view key, std::string& out) const {
    const QORVocParameter* const parameter = current();
    if (parameter == nullptr || key.empty()) return failed;
    const auto value = std::find_if(parameter->values.begin(), parameter->values.end(),
                                    [&](const auto& one) { return one.first == key; });
    if (value == parameter->values.end()) return failed;
    out = value->second;
    return 0;
}

int QORVocIterator::getInt(std::string_view key, int& out) const {
    std::string text;
    if (getString(key, text) != 0) return failed;
    const auto number = parseInt32(text);
    if (!number) return failed;
    out = *number;
    return 0;
}

bool QORVocIterator::hasAttribute(std::string_view name) const {
    const QORVocParameter* const parameter = current();
    return parameter != nullptr &&
           std::find(parameter->marks.begin(), parameter->marks.end(), name) != parameter->marks.end();
}

QORVocMap::~QORVocMap() = default;

int QORVocMap::readCategory(std::string_view name, QORVocIterator& out) const {
    const auto found = m_categories.find(name);
    if (found == m_categories.end()) return failed;
    out.m_parameters = &found->second;
    out.m_at = 0;
    return 0;
}

QORPtr<const QORVocMap> QORVocCacheLocal::getVocabulary() const {
    const std::scoped_lock lock(m_mutex);
    static const QORPtr<const QORVocMap> empty = makeQORPtr<QORVocMap>();
    return m_vocabulary ? m_vocabulary : empty;
}

void QORVocCacheLocal::setVocabulary(QORPtr<const QORVocMap> vocabulary) {
    const std::scoped_lock lock(m_mutex);
    m_vocabulary.swap(vocabulary);
}

QORVocCacheLocal* vocCacheLocal() noexcept {
    static QORNoDestructor<QORVocCacheLocal> cache;
    return &*cache;
}

}  // namespace QOR
