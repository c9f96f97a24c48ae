#include "QORPager/QORArg.h"

#include <utility>

#include "QORMessage/QORBinaryIterator.h"

namespace QOR {

QORArg::QORArg(QORPtr<const QOREnv> environment) : m_env(std::move(environment)) {}

QORArg::~QORArg() = default;
QORProgressArg::~QORProgressArg() = default;
QOREventArg::~QOREventArg() = default;

const QORInfo& QORArg::getInfo() const {
    static const QORInfo empty;
    return empty;
}

std::shared_ptr<QORMessageIterator> QORArg::getMessage() const {
    if (m_env == nullptr) return nullptr;
    if (m_message == nullptr) {
        auto message = std::make_unique<QORMessage>();
        QORBinaryIterator top = message->root();
        if (putObj(top, tag::env, *m_env) != 0) return nullptr;
        m_message = std::move(message);
    }
    return std::make_shared<QORBinaryIterator>(m_message->root());
}

const QOREID* QORProgressArg::touchedEnv(std::size_t index) const {
    if (index >= record.eids.size()) return nullptr;
    if (!m_touchedIndex || index < *m_touchedIndex) {
        m_touched = record.eids.begin();
        m_touchedIndex = 0;
    }
    for (; *m_touchedIndex < index; ++*m_touchedIndex)
        ++m_touched;
    return &*m_touched;
}

QORLogDBEntryOrigin QORLogDBEntryOrigin::fromInfo(const QORInfo& info) {
    QORLogDBEntryOrigin origin;
    const QORInfo* const source = info.getParameter("source_env");
    if (source == nullptr) return origin;
    if (const QORInfo* const title = source->getParameter("title")) origin.title = title->toString();
    if (const QORInfo* const eid = source->getParameter("eid")) origin.eid.fromString(eid->toString());
    if (const QORInfo* const type = source->getParameter("type")) origin.setType(type->toString());
    return origin;
}

void QORLogDBEntryOrigin::setType(std::string_view text) {
    if (text.size() <= mostTypeBytes) {
        type = text;
        return;
    }
    // Continuation bytes at the cut belong to a character that does not fit. No character has more than three of
    // them, so what has more is no UTF-8 and is cut where it stands.
    std::size_t length = mostTypeBytes;
    const auto isContinuation = [&](std::size_t at) { return (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U; };
    while (length + 3 > mostTypeBytes && isContinuation(length))
        --length;
    type = text.substr(0, isContinuation(length) ? mostTypeBytes : length);
}

}  // namespace QOR
