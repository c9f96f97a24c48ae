#include "QORCommon/QORText.h"
#include "QORCommon/QORXmlText.h"
#include "QORMessage/QORXml.h"

namespace QOR {
namespace {

/// Writes straight from the elements: pugixml's document would hold each of them once more before a byte is written.
class XmlWriter {
public:
    XmlWriter(std::string& out, const QORXmlOptions& options)
        : m_out(out), m_indent(options.indent), m_names(options.names) {}

    void writeElement(const QORMessageNode& top) {
        m_topDepth = top.depth;
        const QORMessageNode* node = &top;
        for (;;) {
            open(*node);
            if (node->firstChild != nullptr) {
                node = node->firstChild;
                continue;
            }
            while (node != &top && node->next == nullptr) {
                node = node->parent;
                close(*node);
            }
            if (node == &top) return;
            node = node->next;
        }
    }

private:
    void open(const QORMessageNode& node) {
        beginLine(node);
        m_out += '<';
        const std::string_view name = appendName(node);
        const std::string_view value(node.data, node.size);
        if (node.kind == QORValueKind::None) {
            m_out += node.firstChild == nullptr ? "/>" : ">";
            endLine();
            return;
        }
        if (node.kind == QORValueKind::Text && isXmlText(value)) {
            m_out += '>';
            appendXmlText(value, QORXmlPlace::Element, m_out);
        } else {
            m_out += " encoding=\"base64\">";
            appendBase64(value, m_out);
        }
        m_out += "</";
        m_out += name;
        m_out += '>';
        endLine();
    }

    void close(const QORMessageNode& node) {
        beginLine(node);
        m_out += "</";
        const std::string_view name = nameOf(node);
        m_out += isXmlName(name) ? name : numberedName;
        m_out += '>';
        endLine();
    }

    std::string_view nameOf(const QORMessageNode& node) const {
        if (node.tag >= tag::firstOfMessage && m_names != nullptr) return m_names->name(node.tag);
        return QORTagDictionary::instance().name(node.tag);
    }

    /// The name with its attribute, if it needs one; returns the name alone.
    std::string_view appendName(const QORMessageNode& node) {
        const std::string_view name = nameOf(node);
        if (isXmlName(name)) {
            m_out += name;
            return name;
        }
        m_out += numberedName;
        m_out += " id=\"" + std::to_string(node.tag) + "\"";
        return numberedName;
    }

    void beginLine(const QORMessageNode& node) {
        if (m_indent) m_out.append(std::size_t{2} * static_cast<std::size_t>(node.depth - m_topDepth), ' ');
    }
    void endLine() {
        if (m_indent) m_out += '\n';
    }

    static constexpr std::string_view numberedName = "tag";
    std::string& m_out;
    const bool m_indent;
    const QORMessageNames* const m_names;
    int m_topDepth = 0;
};

}  // namespace

void writeXml(const QORMessageNode& node, std::string& out, const QORXmlOptions& options) {
    if (options.declaration) {
        out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
        if (options.indent) out += '\n';
    }
    XmlWriter writer(out, options);
    if (node.parent != nullptr) {
        writer.writeElement(node);
        return;
    }
    for (const QORMessageNode* child = node.firstChild; child != nullptr; child = child->next) {
        writer.writeElement(*child);
    }
}

}  // namespace QOR
