/// \file
/// Where the elements of a message live. Internal to QORMessage and its cursors; inline, because answers of many
/// rows are built through it one small element at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORMemory.h"
#include "QORMessage/QORMessageNames.h"
#include "QORMessage/QORTags.h"

namespace QOR {

/// How large a message may become; reaching a limit makes writing fail (readers of text forms say which limit).
/// What is removed no longer counts, although its memory is only reused after clear(): a response that was taken back
/// at a limit has room for the error that says so.
struct QORMessageLimits {
    std::uint32_t depth = 64;                  ///< levels of elements below the root, at most 65535
    std::size_t nodes = std::size_t{1} << 28;  ///< elements
    std::size_t bytes = std::size_t{4} << 30;  ///< bytes of texts and binary values together
};

/// What an element holds.
enum class QORValueKind : std::uint8_t { None = 0, Text = 1, Binary = 2 };

/// One element. Read through QORBinaryIterator; writers of text forms walk the links themselves.
struct QORMessageNode {
    QORTag tag;
    std::uint16_t depth;  ///< 0 for the root
    QORValueKind kind;
    const char* data;  ///< the value, not terminated; null when there is none
    std::size_t size;  ///< bytes of the value
    QORMessageNode* parent;
    QORMessageNode* firstChild;
    QORMessageNode* lastChild;
    QORMessageNode* next;  ///< next sibling
};

/// A value of a row that is handed over without its elements.
struct QORRowValue {
    std::string_view bytes;
    QORValueKind kind = QORValueKind::None;
};

/// Takes the rows of an answer while it is written.
class QORRowTaker {
public:
    /// A row that is complete, within its row set; gone when this returns. Must not throw.
    /// \returns false to take no more: whatever is written from then on fails
    virtual bool takeRow(const QORMessageNode& row) noexcept = 0;
    /// The same for a row that was never stored and stands at the end of the row set, its values those of elements
    /// tag::value. They are gone when this returns.
    virtual bool takeValues(const QORMessageNode& rowSet, std::span<const QORRowValue> values) noexcept = 0;

protected:
    ~QORRowTaker() = default;
};

/// Elements and their values, taken in turn from growing blocks of memory and given back all at once. The blocks
/// count for the account of the thread that writes (QORMemoryAccount::current()).
class QOR_API QORMessageStore {
public:
    explicit QORMessageStore(const QORMessageLimits& limits) noexcept;
    QORMessageStore(const QORMessageStore&) = delete;
    QORMessageStore& operator=(const QORMessageStore&) = delete;
    ~QORMessageStore();

    QORMessageNode* root() noexcept { return &m_root; }
    const QORMessageLimits& limits() const noexcept { return m_limits; }
    std::size_t nodeCount() const noexcept { return m_nodes; }
    std::size_t byteCount() const noexcept { return m_bytes; }
    /// Drops everything; the blocks stay, and count for nobody.
    void clear() noexcept;
    /// Bytes of the blocks.
    std::size_t memory() const noexcept { return m_memory; }
    /// Why there was no memory for more; empty while there was.
    const std::string& refusal() const noexcept { return m_refusal; }

    /// From now on every row (tag::row) of a row set that stands below the root is handed over when the cursor leaves
    /// it upwards, at the latest when the next one begins, and given back. Null: rows stay again.
    void setRowTaker(QORRowTaker* taker) noexcept;
    const QORMessageNode* openRow() const noexcept { return m_openRow; }
    /// Hands over the open row, if there is one.
    void endRow() noexcept {
        if (m_openRow != nullptr) giveRow();
    }

    /// See QORBinaryIterator::giveRow().
    bool giveValues(const QORMessageNode& rowSet, std::span<const QORRowValue> values) noexcept;

    bool isDeepest(const QORMessageNode& parent) const noexcept { return parent.depth >= m_limits.depth; }
    bool hasNodesLeft() const noexcept { return m_nodes < m_mostNodes; }
    bool hasBytesLeft(std::size_t size) const noexcept { return size <= m_limits.bytes - m_bytes; }

    /// The number of a name, given to it for this message when it has none; 0 when a limit is reached. The bytes of
    /// such names count until clear().
    QORTag numberName(std::string_view name);
    /// The number of a name that an element of this message can have; 0 for any other.
    QORTag findName(std::string_view name) const;
    const QORMessageNames& names() const noexcept { return m_names; }

    /// No longer counts the element, everything below it, and their values.
    void forget(const QORMessageNode& top) noexcept;

    /// Appends an element below `parent`; null when the parent has a value, a limit is reached, or there is no memory.
    QORMessageNode* addNode(QORMessageNode& parent, QORTag tag) {
        if (tag == tag::row && handsRowsOver(parent)) beginRow(parent);
        if (parent.kind != QORValueKind::None || isDeepest(parent) || !hasNodesLeft()) return nullptr;
        void* const memory = take(sizeof(QORMessageNode));
        if (memory == nullptr) return nullptr;
        auto* const node = ::new (memory) QORMessageNode{tag,
                                                         static_cast<std::uint16_t>(parent.depth + 1U),
                                                         QORValueKind::None,
                                                         nullptr,
                                                         0,
                                                         &parent,
                                                         nullptr,
                                                         nullptr,
                                                         nullptr};
        ++m_nodes;
        (parent.lastChild == nullptr ? parent.firstChild : parent.lastChild->next) = node;
        parent.lastChild = node;
        if (m_rowBegins) openRow(*node);
        return node;
    }

    /// Copies the value into the element, in place of one it may have; false when it has children or a limit is
    /// reached.
    bool setValue(QORMessageNode& node, std::string_view value, QORValueKind kind) {
        if (node.firstChild != nullptr || node.depth == 0 || !hasBytesLeft(value.size())) return false;
        auto* const copy = static_cast<char*>(take(std::max(value.size(), std::size_t{1})));
        if (copy == nullptr) return false;
        if (!value.empty()) std::memcpy(copy, value.data(), value.size());
        m_bytes += value.size();
        node.data = copy;
        node.size = value.size();
        node.kind = kind;
        return true;
    }

private:
    struct Block {
        std::unique_ptr<std::byte[]> memory;
        std::size_t size;
    };
    static constexpr std::size_t alignment = alignof(QORMessageNode);

    /// What the message held before the open row.
    struct BeforeRow {
        QORMessageNode* lastChild = nullptr;
        std::byte* free = nullptr;
        std::byte* end = nullptr;
        std::size_t used = 0;
        std::size_t nodes = 0;
        std::size_t bytes = 0;
    };

    /// Aligned memory of at least `size` bytes; null when there is none.
    void* take(std::size_t size) {
        const std::size_t rounded = (size + alignment - 1) & ~(alignment - 1);
        if (static_cast<std::size_t>(m_end - m_free) < rounded && !nextBlock(rounded)) return nullptr;
        std::byte* const memory = m_free;
        m_free += rounded;
        return memory;
    }
    bool nextBlock(std::size_t size);
    bool handsRowsOver(const QORMessageNode& parent) const noexcept {
        return m_rowTaker != nullptr && parent.depth == 1 && parent.tag == tag::rowSet;
    }
    void beginRow(QORMessageNode& rowSet) noexcept;
    void openRow(QORMessageNode& row) noexcept {
        m_openRow = &row;
        m_rowBegins = false;
    }
    void giveRow() noexcept;

    std::byte* m_free = nullptr;
    std::byte* m_end = nullptr;
    std::size_t m_nodes = 0;
    std::size_t m_bytes = 0;
    QORMessageLimits m_limits;
    QORMessageNames m_names;
    std::size_t m_mostNodes;  ///< the limit, or 0 when nothing more is taken
    QORMessageNode m_root{};
    std::vector<Block> m_blocks;
    std::size_t m_used = 0;  ///< blocks that hold something, the last one being filled
    std::size_t m_memory = 0;
    QORMemoryCharge m_charge;
    std::string m_refusal;
    QORRowTaker* m_rowTaker = nullptr;
    QORMessageNode* m_openRow = nullptr;
    BeforeRow m_beforeRow;
    bool m_rowBegins = false;  ///< the next element added is a row to be handed over
};

}  // namespace QOR
