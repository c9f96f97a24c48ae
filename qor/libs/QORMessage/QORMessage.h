/// \file
/// The message tree. Elements and their texts live in an arena that belongs to the message.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORMessageStore.h"
#include "QORMessage/QORTags.h"

namespace QOR {

class QORBinaryIterator;

/// An ordered tree of tagged elements under a root that has no tag and no value. Movable, not copyable; a message
/// that was moved from may only be assigned to or destroyed. Cursors hold the address of their message, so they do
/// not survive its move. One thread at a time. Destroying a message costs time by blocks of memory, not by elements.
class QOR_API QORMessage {
public:
    QORMessage();
    explicit QORMessage(const QORMessageLimits& limits);
    QORMessage(QORMessage&&) noexcept;
    QORMessage& operator=(QORMessage&&) noexcept;
    ~QORMessage();

    /// A cursor on the root.
    QORBinaryIterator root();
    const QORMessageNode* rootNode() const noexcept { return m_store->root(); }
    /// The names that this message alone knows.
    const QORMessageNames& names() const noexcept { return m_store->names(); }
    const QORMessageLimits& limits() const noexcept { return m_store->limits(); }
    /// Elements and bytes of values put into the message since it was made or cleared.
    std::size_t nodeCount() const noexcept { return m_store->nodeCount(); }
    std::size_t byteCount() const noexcept { return m_store->byteCount(); }
    bool empty() const noexcept { return rootNode()->firstChild == nullptr; }
    /// Drops all elements and keeps the memory for the next use, counting for no request.
    void clear() { m_store->clear(); }
    /// Bytes of memory that the message has, in use or kept.
    std::size_t memory() const noexcept { return m_store->memory(); }
    /// Why writing failed when memory was wanting (see QORMemory.h); empty when it was not.
    const std::string& refusal() const noexcept { return m_store->refusal(); }
    /// Hands rows over while they are written, see QORMessageStore; QORAnswerWriter is who asks for it.
    void setRowTaker(QORRowTaker* taker) noexcept { m_store->setRowTaker(taker); }

private:
    friend class QORBinaryIterator;
    std::unique_ptr<QORMessageStore> m_store;
};

}  // namespace QOR
