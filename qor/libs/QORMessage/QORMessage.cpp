#include "QORMessage/QORMessage.h"

#include <mutex>
#include <utility>

#include "QORCommon/QORNoDestructor.h"
#include "QORMessage/QORBinaryIterator.h"

namespace QOR {
namespace {

constexpr std::size_t firstBlockSize = std::size_t{4} << 10;
constexpr std::size_t largeBlockSize = std::size_t{256} << 10;

/// Large blocks of destroyed messages, kept for the next ones: memory that comes fresh from the system costs a page
/// fault every 4 KiB, which is a good part of the cost of building a large message.
class BlockCache {
public:
    std::unique_ptr<std::byte[]> take() noexcept {
        const std::lock_guard lock(m_mutex);
        if (m_blocks.empty()) return nullptr;
        auto block = std::move(m_blocks.back());
        m_blocks.pop_back();
        return block;
    }

    void give(std::unique_ptr<std::byte[]> block) noexcept {
        const std::lock_guard lock(m_mutex);
        if (m_blocks.size() < m_blocks.capacity()) m_blocks.push_back(std::move(block));
    }

    BlockCache() { m_blocks.reserve(mostBytes / largeBlockSize); }

private:
    static constexpr std::size_t mostBytes = std::size_t{8} << 20;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<std::byte[]>> m_blocks;
};

BlockCache& blockCache() {
    static QORNoDestructor<BlockCache> cache;
    return *cache;
}

QORMessageLimits withinRange(QORMessageLimits limits) {
    constexpr std::uint32_t mostDepth = 0xFFFF;  // depths are counted in 16 bits
    limits.depth = std::min(limits.depth, mostDepth);
    return limits;
}

}  // namespace

QORMessageStore::QORMessageStore(const QORMessageLimits& limits) noexcept
    : m_limits(withinRange(limits)), m_mostNodes(m_limits.nodes) {}

QORMessageStore::~QORMessageStore() {
    for (Block& block : m_blocks) {
        if (block.size == largeBlockSize) blockCache().give(std::move(block.memory));
    }
}

QORTag QORMessageStore::findName(std::string_view name) const {
    if (const QORTag own = m_names.find(name)) return own;
    return QORTagDictionary::instance().find(name).value_or(0);
}

QORTag QORMessageStore::numberName(std::string_view name) {
    if (const QORTag known = findName(name)) return known;
    if (name.empty() || !hasBytesLeft(name.size())) return 0;
    m_bytes += name.size();
    return m_names.add(name);
}

void QORMessageStore::clear() noexcept {
    m_names.clear();
    m_free = nullptr;
    m_end = nullptr;
    m_used = 0;
    m_nodes = 0;
    m_bytes = 0;
    m_mostNodes = m_limits.nodes;
    m_root = QORMessageNode{};
    m_openRow = nullptr;
    m_rowBegins = false;
    m_refusal.clear();
    m_charge.release();
}

void QORMessageStore::setRowTaker(QORRowTaker* taker) noexcept {
    endRow();
    m_rowTaker = taker;
    m_mostNodes = m_limits.nodes;
}

void QORMessageStore::beginRow(QORMessageNode& rowSet) noexcept {
    endRow();
    m_beforeRow = {rowSet.lastChild, m_free, m_end, m_used, m_nodes, m_bytes};
    m_rowBegins = true;
}

void QORMessageStore::giveRow() noexcept {
    QORMessageNode* const row = m_openRow;
    QORMessageNode& rowSet = *row->parent;
    m_openRow = nullptr;
    if (!m_rowTaker->takeRow(*row)) m_mostNodes = 0;
    (m_beforeRow.lastChild == nullptr ? rowSet.firstChild : m_beforeRow.lastChild->next) = row->next;
    if (rowSet.lastChild == row) rowSet.lastChild = m_beforeRow.lastChild;
    forget(*row);
    // Something else was written meanwhile: its memory lies among the row's.
    if (m_nodes != m_beforeRow.nodes || m_bytes != m_beforeRow.bytes) return;
    m_free = m_beforeRow.free;
    m_end = m_beforeRow.end;
    m_used = m_beforeRow.used;
}

/// What the elements of the row would take has to be there, as if they were stored.
bool QORMessageStore::giveValues(const QORMessageNode& rowSet, std::span<const QORRowValue> values) noexcept {
    if (!handsRowsOver(rowSet)) return false;
    endRow();
    const std::size_t nodes = values.size() + 1;
    std::size_t bytes = 0;
    for (const QORRowValue& value : values)
        bytes += value.bytes.size();
    if (rowSet.kind != QORValueKind::None || rowSet.depth + 2U > m_limits.depth || m_nodes > m_mostNodes ||
        nodes > m_mostNodes - m_nodes || !hasBytesLeft(bytes)) {
        return false;
    }
    if (!m_rowTaker->takeValues(rowSet, values)) m_mostNodes = 0;
    return true;
}

void QORMessageStore::forget(const QORMessageNode& top) noexcept {
    const QORMessageNode* node = &top;
    for (;;) {
        --m_nodes;
        m_bytes -= node->size;
        if (node == m_openRow) m_openRow = nullptr;  // taken back half-written
        if (node->firstChild != nullptr) {
            node = node->firstChild;
            continue;
        }
        while (node != &top && node->next == nullptr)
            node = node->parent;
        if (node == &top) return;
        node = node->next;
    }
}

bool QORMessageStore::nextBlock(std::size_t size) {
    // After clear() the blocks of the former use come first; one that is too small is passed over.
    while (m_used < m_blocks.size() && m_blocks[m_used].size < size)
        ++m_used;
    if (m_used == m_blocks.size()) {
        const std::size_t grown =
            m_blocks.empty() ? firstBlockSize : std::min(m_blocks.back().size * 4, largeBlockSize);
        Block block{nullptr, std::max(size, grown)};
        if (!m_charge.tryAdd(block.size)) {
            m_refusal = QORMemoryAccount::current()->refusal(block.size, "the message");
            return false;
        }
        if (block.size == largeBlockSize) block.memory = blockCache().take();
        if (block.memory == nullptr) block.memory = std::make_unique_for_overwrite<std::byte[]>(block.size);
        m_memory += block.size;
        m_blocks.push_back(std::move(block));
    }
    Block& block = m_blocks[m_used++];
    m_free = block.memory.get();
    m_end = m_free + block.size;
    return true;
}

QORMessage::QORMessage() : QORMessage(QORMessageLimits()) {}
QORMessage::QORMessage(const QORMessageLimits& limits) : m_store(std::make_unique<QORMessageStore>(limits)) {}
QORMessage::QORMessage(QORMessage&&) noexcept = default;
QORMessage& QORMessage::operator=(QORMessage&&) noexcept = default;
QORMessage::~QORMessage() = default;

QORBinaryIterator QORMessage::root() {
    return {*this, m_store->root()};
}

}  // namespace QOR
