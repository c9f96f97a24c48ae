#include "output/XmlPrinter.h"

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORXml.h"

namespace QOR {

/// One line for each element that stands below the message's root; the message is empty afterwards.
void QORXmlPrinter::printLines() {
    for (const QORMessageNode* node = m_message.rootNode()->firstChild; node != nullptr; node = node->next) {
        writeXml(*node, m_out.buffer());
        m_out.buffer() += '\n';
    }
    m_message.clear();
    m_out.settle();
}

void QORXmlPrinter::begin(std::span<const std::string> names) {
    m_out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<row_set>\n";
    QORBinaryIterator at = m_message.root();
    for (const std::string& name : names)
        at.putValue(name, tag::name);
    printLines();
}

void QORXmlPrinter::row(std::span<const QORCell> cells) {
    QORBinaryIterator at = m_message.root();
    at.addChild(tag::row);
    for (const QORCell& cell : cells) {
        if (cell.kind == QORCell::Kind::Text) {
            at.putValue(cell.bytes, tag::value);
        } else if (cell.kind == QORCell::Kind::Binary) {
            at.putBinary(cell.bytes.data(), cell.bytes.size(), tag::value);
        } else {
            at.addChild(tag::value);
            at.seekUp();
        }
    }
    printLines();
}

void QORXmlPrinter::end(const std::optional<QORRowCounts>& counts) {
    if (counts) {
        QORBinaryIterator at = m_message.root();
        at.putInt64(counts->rows, tag::statistics);
        at.putInt64(counts->total, tag::total);
        printLines();
    }
    m_out << "</row_set>\n";
}

}  // namespace QOR
