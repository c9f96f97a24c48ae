/// \file
/// The concrete cursor over a QORMessage: two pointers, copied freely. What writers of large answers call per value
/// is inline, and the class is final, so that a call through it costs no virtual dispatch.
#pragma once

#include "QORMessage/QORMessage.h"
#include "QORMessage/QORMessageIterator.h"

namespace QOR {

/// See QORMessageIterator for what each operation does.
class QOR_API QORBinaryIterator final : public QORMessageIterator {
public:
    QORBinaryIterator(QORMessage& message, QORMessageNode* node) noexcept : m_message(&message), m_node(node) {}
    QORBinaryIterator(const QORBinaryIterator&) = default;
    QORBinaryIterator& operator=(const QORBinaryIterator&) = default;
    ~QORBinaryIterator() override;

    QORTag curID() const override { return m_node->tag; }
    std::string_view curName() const override;
    int seekPresence(QORTag id) const override;
    int firstChild(QORTag id = 0) override;
    int seek(QORTag id) override;
    int nextSibling(QORTag id = 0) override;
    int seekUp() override {
        if (m_node->parent == nullptr) return failed;
        const bool endsRow = m_node == store().openRow();
        m_node = m_node->parent;
        if (endsRow) store().endRow();
        return 0;
    }
    int reset() override;
    int seekPath(std::string_view path) override;
    std::unique_ptr<QORMessageIterator> clone() const override;

    int getValue(int& out, QORTag id = 0) const override;
    int getValue(std::int64_t& out, QORTag id = 0) const override;
    int getValue(std::string& out, QORTag id = 0) const override;
    int getView(std::string_view& out, QORTag id = 0) const override;

    int addChild(QORTag id) override {
        QORMessageNode* const child = store().addNode(*m_node, id);
        if (child == nullptr) return failed;
        m_node = child;
        return 0;
    }
    int addNamed(std::string_view name) override;
    int putValue(std::string_view text, QORTag id = 0) override { return put(text, QORValueKind::Text, id); }
    int putInt(std::int32_t value, QORTag id = 0) override;
    int putInt64(std::int64_t value, QORTag id = 0) override;
    int putBinary(const void* data, std::size_t size, QORTag id = 0) override;
    int removeChildren(QORTag id) override;
    /// Has a row (tag::row) of values (tag::value) taken from where they lie, where rows are handed over anyway (see
    /// QORMessageStore::setRowTaker()): its elements, which would be gone at once, are never made.
    /// \returns false when the row has to be written: rows stay here, or it would reach a limit
    bool giveRow(std::span<const QORRowValue> values) noexcept { return store().giveValues(*m_node, values); }

    /// The last child of the current element, for dropChildrenAfter(); null when there is none.
    const QORMessageNode* mark() const noexcept { return m_node->lastChild; }
    /// Removes the children behind the one that mark() gave: undoes what was appended since.
    void dropChildrenAfter(const QORMessageNode* mark) noexcept;

    const QORMessageNode* node() const noexcept { return m_node; }
    QORMessage& message() const noexcept { return *m_message; }

private:
    static constexpr int failed = -1;

    QORMessageStore& store() const noexcept { return *m_message->m_store; }

    int put(std::string_view value, QORValueKind kind, QORTag id) {
        if (id == 0) return store().setValue(*m_node, value, kind) ? 0 : failed;
        if (!store().hasBytesLeft(value.size())) return failed;
        const QORMessageNode* const before = m_node->lastChild;
        QORMessageNode* const child = store().addNode(*m_node, id);
        if (child == nullptr) return failed;
        if (store().setValue(*child, value, kind)) return 0;
        store().forget(*child);
        dropChildrenAfter(before);
        return failed;
    }

    QORMessage* m_message;
    QORMessageNode* m_node;
};

}  // namespace QOR
