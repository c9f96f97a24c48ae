#include "QORMessage/QORBinaryIterator.h"

#include <charconv>

#include "QORCommon/QORNumbers.h"

namespace QOR {
namespace {

/// The first element from `node` on along its siblings that has the tag (any when id is 0); null when there is none.
QORMessageNode* findFrom(QORMessageNode* node, QORTag id) {
    while (node != nullptr && id != 0 && node->tag != id)
        node = node->next;
    return node;
}

/// The number that a path segment means: the number of a name, or the number itself.
QORTag segmentTag(const QORMessageStore& store, std::string_view segment) {
    if (const QORTag known = store.findName(segment)) return known;
    QORTag id = 0;
    const auto [end, error] = std::from_chars(segment.data(), segment.data() + segment.size(), id);
    return error == std::errc() && end == segment.data() + segment.size() ? id : 0;
}

const QORMessageNode* valueNode(const QORMessageNode* node, QORTag id) {
    return id == 0 ? node : findFrom(node->firstChild, id);
}

template <class Integer>
std::string_view writeInteger(Integer value, char (&buffer)[24]) {
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return {buffer, static_cast<std::size_t>(result.ptr - buffer)};
}

}  // namespace

QORMessageIterator::~QORMessageIterator() = default;

std::string_view QORMessageIterator::curName() const {
    return QORTagDictionary::instance().name(curID());
}

int QORMessageIterator::addNamed(std::string_view name) {
    const auto id = QORTagDictionary::instance().find(name);
    return id ? addChild(*id) : -1;
}

QORBinaryIterator::~QORBinaryIterator() = default;

std::string_view QORBinaryIterator::curName() const {
    const std::string_view own = store().names().name(curID());
    return own.empty() ? QORMessageIterator::curName() : own;
}

int QORBinaryIterator::addNamed(std::string_view name) {
    const QORTag id = store().numberName(name);
    return id == 0 ? failed : addChild(id);
}

int QORBinaryIterator::seekPresence(QORTag id) const {
    return findFrom(m_node->firstChild, id) == nullptr ? failed : 0;
}

int QORBinaryIterator::firstChild(QORTag id) {
    QORMessageNode* const child = findFrom(m_node->firstChild, id);
    if (child == nullptr) return failed;
    m_node = child;
    return 0;
}

int QORBinaryIterator::seek(QORTag id) {
    return firstChild(id);
}

int QORBinaryIterator::nextSibling(QORTag id) {
    QORMessageNode* const sibling = findFrom(m_node->next, id);
    if (sibling == nullptr) return failed;
    m_node = sibling;
    return 0;
}

int QORBinaryIterator::reset() {
    m_node = store().root();
    return 0;
}

int QORBinaryIterator::seekPath(std::string_view path) {
    QORMessageNode* node = m_node;
    while (!path.empty()) {
        const std::size_t length = std::min(path.find('/'), path.size());
        const std::string_view segment = path.substr(0, length);
        path.remove_prefix(std::min(length + 1, path.size()));
        if (segment.empty()) continue;
        const QORTag id = segmentTag(store(), segment);
        node = id == 0 ? nullptr : findFrom(node->firstChild, id);
        if (node == nullptr) return failed;
    }
    m_node = node;
    return 0;
}

std::unique_ptr<QORMessageIterator> QORBinaryIterator::clone() const {
    return std::make_unique<QORBinaryIterator>(*this);
}

int QORBinaryIterator::getValue(int& out, QORTag id) const {
    const QORMessageNode* const node = valueNode(m_node, id);
    if (node == nullptr || node->kind != QORValueKind::Text) return failed;
    const auto value = parseInt32({node->data, node->size});
    if (!value) return failed;
    out = *value;
    return 0;
}

int QORBinaryIterator::getValue(std::int64_t& out, QORTag id) const {
    const QORMessageNode* const node = valueNode(m_node, id);
    if (node == nullptr || node->kind != QORValueKind::Text) return failed;
    const auto value = parseInt64({node->data, node->size});
    if (!value) return failed;
    out = *value;
    return 0;
}

int QORBinaryIterator::getValue(std::string& out, QORTag id) const {
    std::string_view view;
    if (getView(view, id) != 0) return failed;
    out.assign(view);
    return 0;
}

int QORBinaryIterator::getView(std::string_view& out, QORTag id) const {
    const QORMessageNode* const node = valueNode(m_node, id);
    if (node == nullptr || node->kind == QORValueKind::None) return failed;
    out = {node->data, node->size};
    return 0;
}

int QORBinaryIterator::putInt(std::int32_t value, QORTag id) {
    char buffer[24];
    return put(writeInteger(value, buffer), QORValueKind::Text, id);
}

int QORBinaryIterator::putInt64(std::int64_t value, QORTag id) {
    char buffer[24];
    return put(writeInteger(value, buffer), QORValueKind::Text, id);
}

int QORBinaryIterator::putBinary(const void* data, std::size_t size, QORTag id) {
    return put({static_cast<const char*>(data), size}, QORValueKind::Binary, id);
}

int QORBinaryIterator::removeChildren(QORTag id) {
    QORMessageNode* kept = nullptr;
    bool removed = false;
    for (QORMessageNode* child = m_node->firstChild; child != nullptr; child = child->next) {
        if (id == 0 || child->tag == id) {
            removed = true;
            store().forget(*child);
            continue;
        }
        (kept == nullptr ? m_node->firstChild : kept->next) = child;
        kept = child;
    }
    if (!removed) return failed;
    (kept == nullptr ? m_node->firstChild : kept->next) = nullptr;
    m_node->lastChild = kept;
    return 0;
}

void QORBinaryIterator::dropChildrenAfter(const QORMessageNode* mark) noexcept {
    QORMessageNode* last = nullptr;
    if (mark != nullptr) {
        last = m_node->firstChild;
        while (last != nullptr && last != mark)
            last = last->next;
    }
    (last == nullptr ? m_node->firstChild : last->next) = nullptr;
    m_node->lastChild = last;
}

}  // namespace QOR
