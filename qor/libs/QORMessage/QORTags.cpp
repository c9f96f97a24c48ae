#include "QORMessage/QORTags.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNoDestructor.h"

namespace QOR {
namespace {

struct FixedName {
    QORTag id;
    std::string_view name;
};

/// Contract: never renumber, never rename. Ordered by number.
constexpr FixedName fixedNames[] = {
    {tag::type, "type"},
    {tag::view, "view"},
    {tag::value, "value"},
    {tag::size, "size"},
    {tag::name, "name"},
    {tag::total, "total"},
    {tag::cell, "cell"},
    {tag::offset, "offset"},
    {tag::source, "source"},
    {tag::message, "message"},
    {tag::statistics, "statistics"},
    {tag::limit, "limit"},
    {tag::descending, "descending"},
    {tag::cache, "cache"},
    {tag::env, "env"},
    {tag::reply, "reply"},
    {tag::row, "row"},
    {tag::select, "select"},
    {tag::field, "field"},
    {tag::where, "where"},
    {tag::sort, "sort"},
    {tag::rowSet, "row_set"},
    {tag::function, "function"},
    {tag::eq, "eq"},
    {tag::ne, "ne"},
    {tag::gt, "gt"},
    {tag::ge, "ge"},
    {tag::lt, "lt"},
    {tag::le, "le"},
    {tag::like, "like"},
    {tag::between, "between"},
    {tag::isNull, "is_null"},
    {tag::in, "in"},
    {tag::logicalAnd, "and"},
    {tag::logicalOr, "or"},
    {tag::logicalNot, "not"},
    {tag::distinct, "distinct"},
    {tag::escape, "escape"},
    {tag::ordered, "ordered"},
    {tag::after, "after"},
    {tag::count, "count"},
    {tag::deadline, "deadline"},
    {tag::exact, "exact"},
    {tag::now, "now"},
    {tag::explain, "explain"},
    {tag::next, "next"},
    {tag::exactness, "exactness"},
    {tag::changed, "changed"},
    {tag::most, "most"},
    {tag::spent, "spent"},
};

constexpr bool byNumber(const FixedName& a, const FixedName& b) {
    return a.id < b.id;
}
static_assert(std::is_sorted(std::begin(fixedNames), std::end(fixedNames), byNumber));

constexpr std::string_view reservedNames[] = {"error", "code"};
static_assert(tag::error == tag::firstInterned && tag::errorCode == tag::firstInterned + 1);

}  // namespace

/// Names are looked up by number without a lock, since writers do so for each element: a name is published by the
/// count that covers it and never changes afterwards.
struct QORTagDictionary::Impl {
    static constexpr std::size_t chunkSize = 1024;
    static constexpr std::size_t chunkCount = 4096;
    using Chunk = std::array<std::string, chunkSize>;

    mutable std::shared_mutex mutex;  ///< guards `numbers` and the adding of names
    std::unordered_map<std::string_view, QORTag> numbers;
    std::array<std::unique_ptr<Chunk>, chunkCount> chunks;
    std::atomic<std::size_t> count{0};

    std::string& slot(std::size_t index) { return (*chunks[index / chunkSize])[index % chunkSize]; }

    QORTag add(std::string_view name) {
        const std::size_t index = count.load(std::memory_order_relaxed);
        if (index == chunkSize * chunkCount) throw QORException(errFailure, "the tag dictionary is full");
        auto& chunk = chunks[index / chunkSize];
        if (chunk == nullptr) chunk = std::make_unique<Chunk>();
        slot(index) = name;
        const QORTag id = tag::firstInterned + static_cast<QORTag>(index);
        numbers.emplace(slot(index), id);
        count.store(index + 1, std::memory_order_release);
        return id;
    }
};

QORTagDictionary::QORTagDictionary() : m_impl(std::make_unique<Impl>()) {
    for (const FixedName& fixed : fixedNames)
        m_impl->numbers.emplace(fixed.name, fixed.id);
    for (const std::string_view name : reservedNames)
        m_impl->add(name);
}

QORTagDictionary::~QORTagDictionary() = default;

QORTagDictionary& QORTagDictionary::instance() {
    struct Dictionary : QORTagDictionary {};
    static QORNoDestructor<Dictionary> dictionary;
    return *dictionary;
}

std::optional<QORTag> QORTagDictionary::find(std::string_view name) const {
    const std::shared_lock lock(m_impl->mutex);
    const auto found = m_impl->numbers.find(name);
    if (found == m_impl->numbers.end()) return std::nullopt;
    return found->second;
}

QORTag QORTagDictionary::intern(std::string_view name) {
    if (name.empty()) throw QORException(errFailure, "an element needs a name");
    if (const auto id = find(name)) return *id;
    const std::unique_lock lock(m_impl->mutex);
    const auto found = m_impl->numbers.find(name);
    return found != m_impl->numbers.end() ? found->second : m_impl->add(name);
}

std::string_view QORTagDictionary::name(QORTag id) const {
    if (id >= tag::firstInterned) {
        const std::size_t index = id - tag::firstInterned;
        return index < m_impl->count.load(std::memory_order_acquire) ? m_impl->slot(index) : std::string_view();
    }
    const auto* const found =
        std::lower_bound(std::begin(fixedNames), std::end(fixedNames), FixedName{id, {}}, byNumber);
    return found != std::end(fixedNames) && found->id == id ? found->name : std::string_view();
}

}  // namespace QOR
