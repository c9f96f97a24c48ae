#include "output/XmlPrinter.h"

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORXml.h"

namespace QOR {

/// One line for each element that stands below the message's root; the message is empty afterwards.
void XmlPrinter::printLines() {
    for (const QORMessageNode* node = m_message.rootNode()->firstChild; node != nullptr; node = node->next) {
        writeXml(*node, m_out.buffer());
        m_out.buffer() += '\n';
    }
    m_message.clear();
    m_out.settle();
}

void XmlPrinter::begin(std::span<const std::string> names) {
    m_out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<row_set>\n";
    QORBinaryIterator at = m_message.root();
    for (const std::string& name : names)
        at.putValue(name, tag::name);
    printLines();
}

void XmlPrinter::row(std::span<const Cell> cells) {
    QORBinaryIterator at = m_message.root();
    at.addChild(tag::row);
    for (const Cell& cell : cells) {
        if (cell.kind == Cell::Kind::Text) {
            at.putValue(cell.bytes, tag::value);
        } else if (cell.kind == Cell::Kind::Binary) {
            at.putBinary(cell.bytes.data(), cell.bytes.size(), tag::value);
        } else {
            at.addChild(tag::value);
            at.seekUp();
        }
    }
    printLines();
}

void XmlPrinter::end(const std::optional<RowCounts>& counts) {
    if (counts) {
        QORBinaryIterator at = m_message.root();
        at.putInt64(counts->rows, tag::statistics);
        at.putInt64(counts->total, tag::total);
        printLines();
    }
    m_out << "</row_set>\n";
}

}  // namespace QOR
