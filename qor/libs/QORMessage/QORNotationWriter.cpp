#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORNotation.h"

namespace QOR {
namespace {

/// JSON text on its way to a sink, in blocks.
///
/// Stands where RapidJSON's Writer could. That one reserves six times the size of a text before it writes it, which
/// a large value of a database must not cost; over a stream that counts each byte instead it writes about a third as
/// much a second. This one needs a block of memory whatever the sizes, decides between text and base64 in the pass
/// that escapes, and is the faster one (write/notation beside write/notation-rapidjson in bench/message).
class BlockWriter {
public:
    explicit BlockWriter(QORAnswerOutput output, std::size_t blockSize = std::size_t{64} << 10)
        : m_output(std::move(output)),
          m_buffer(std::make_unique_for_overwrite<char[]>(blockSize)),
          m_at(m_buffer.get()),
          m_end(m_at + blockSize) {
        m_tags.fill(spell(0));
    }

    void put(char c) {
        reserve(1);
        *m_at++ = c;
    }

    /// A text of a few bytes that needs no escapes.
    template <std::size_t N>
    void put(const char (&literal)[N]) {
        reserve(N - 1);
        std::memcpy(m_at, literal, N - 1);
        m_at += N - 1;
    }

    template <class Integer>
    void putNumber(Integer value) {
        reserve(mostDigits);
        m_at = std::to_chars(m_at, m_at + mostDigits, value).ptr;
    }

    /// The beginning of an element, "[TAG,": what follows is up to whoever knows what the element holds.
    void putTag(QORTag tag) {
        Tag& known = m_tags[tag % m_tags.size()];
        if (known.tag != tag) known = spell(tag);
        reserve(sizeof known.text);
        std::memcpy(m_at, known.text, sizeof known.text);
        m_at += known.size;
    }

    /// Takes the comma back that putTag() has just written.
    void dropComma() { --m_at; }

    /// A JSON string, or a base64 object where the bytes are not UTF-8.
    void putText(std::string_view text) {
        if (text.size() <= pieceSize) {
            putShortText(text);
        } else if (isUtf8(text)) {
            put('"');
            for (; !text.empty(); text.remove_prefix(std::min(text.size(), pieceSize))) {
                reserve(pieceSize * mostEscape);
                m_at = escape(m_at, text.substr(0, pieceSize), [] { return true; });
            }
            put('"');
        } else {
            putBinary(text);
        }
    }

    void putBinary(std::string_view bytes) {
        put("{\"base64\":\"");
        constexpr std::size_t piece = 3 * 1024;  // whole groups, so that only the last piece is padded
        std::string encoded;
        for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), piece))) {
            encoded.clear();
            appendBase64(bytes.substr(0, piece), encoded);
            reserve(encoded.size());
            std::memcpy(m_at, encoded.data(), encoded.size());
            m_at += encoded.size();
        }
        put("\"}");
    }

    /// Hands over what there is; nothing is handed over when there is nothing.
    void flush() {
        if (m_at != m_buffer.get() && m_taken) {
            m_taken = m_output({m_buffer.get(), static_cast<std::size_t>(m_at - m_buffer.get())});
        }
        m_at = m_buffer.get();
    }

private:
    static constexpr std::size_t pieceSize = 1024;
    static constexpr std::size_t mostEscape = 6;  ///< bytes that one byte of a text may become, as in \u0001
    static constexpr std::size_t mostDigits = 20;

    /// A tag as it is written. Few tags make up most of an answer, so what they come to is kept.
    struct Tag {
        QORTag tag;
        std::uint8_t size;
        char text[16];  ///< copied whole, which takes no call
    };

    static Tag spell(QORTag tag) {
        Tag spelled{tag, 0, {'['}};
        char* const end = std::to_chars(spelled.text + 1, std::end(spelled.text), tag).ptr;
        *end = ',';
        spelled.size = static_cast<std::uint8_t>(end + 1 - spelled.text);
        return spelled;
    }

    void reserve(std::size_t size) {
        if (static_cast<std::size_t>(m_end - m_at) < size) flush();
    }

    /// Escapes on the way without looking at the text first; the first byte above 127 asks for the check.
    void putShortText(std::string_view text) {
        reserve(pieceSize * mostEscape + 2);
        char* const begin = m_at;
        *m_at = '"';
        char* const end = escape(m_at + 1, text, [text] { return isUtf8(text); });
        if (end != nullptr) {
            *end = '"';
            m_at = end + 1;
        } else {
            m_at = begin;
            putBinary(text);
        }
    }

    /// Eight bytes at once: not 0 when one of them needs more than copying.
    static std::uint64_t special(std::uint64_t word) {
        constexpr std::uint64_t ones = 0x0101010101010101ULL;
        constexpr std::uint64_t high = 0x8080808080808080ULL;
        const std::uint64_t quote = word ^ (ones * '"');
        const std::uint64_t backslash = word ^ (ones * '\\');
        return ((word - ones * 0x20) | (quote - ones) | (backslash - ones) | word) & high;
    }

    /// Copies from the front as far as nothing needs more than that, in words, of which the last overlaps the one
    /// before. A text of a few bytes is left to the caller. \returns how many bytes
    static std::size_t copyPlain(char* at, const char* from, const char* end) {
        const auto size = static_cast<std::size_t>(end - from);
        std::size_t done = 0;
        std::uint64_t word;
        for (; size - done >= sizeof word; done += sizeof word) {
            std::memcpy(&word, from + done, sizeof word);
            if (special(word) != 0) return done;
            std::memcpy(at + done, &word, sizeof word);
        }
        if (done == size) return size;
        if (done > 0) {  // the last word overlaps what has been copied
            std::memcpy(&word, end - sizeof word, sizeof word);
            if (special(word) != 0) return done;
            std::memcpy(at + size - sizeof word, &word, sizeof word);
            return size;
        }
        std::uint32_t halves[2];
        if (size < sizeof halves[0]) return 0;
        std::memcpy(&halves[0], from, sizeof halves[0]);
        std::memcpy(&halves[1], end - sizeof halves[1], sizeof halves[1]);
        if (special(halves[0] | std::uint64_t{halves[1]} << 32) != 0) return 0;
        std::memcpy(at, &halves[0], sizeof halves[0]);
        std::memcpy(at + size - sizeof halves[1], &halves[1], sizeof halves[1]);
        return size;
    }

    /// Writes the text with escapes and returns the end; null when it holds bytes above 127 and `check` refuses it.
    template <class Check>
    static char* escape(char* at, std::string_view text, Check check) {
        const char* from = text.data();
        const char* const end = from + text.size();
        bool checked = false;
        for (;;) {
            const std::size_t plain = copyPlain(at, from, end);
            at += plain;
            from += plain;
            if (from == end) break;
            const auto byte = static_cast<unsigned char>(*from++);
            if (byte >= 0x80 && !checked) {
                if (!check()) return nullptr;
                checked = true;
            }
            if (byte >= 0x20 && byte != '"' && byte != '\\') {
                *at++ = static_cast<char>(byte);
            } else {
                at = escapeByte(at, byte);
            }
        }
        return at;
    }

    static char* escapeByte(char* at, unsigned char byte) {
        constexpr char digits[] = "0123456789abcdef";
        *at++ = '\\';
        switch (byte) {
            case '"':
            case '\\':
                *at++ = static_cast<char>(byte);
                return at;
            case '\b':
                *at++ = 'b';
                return at;
            case '\f':
                *at++ = 'f';
                return at;
            case '\n':
                *at++ = 'n';
                return at;
            case '\r':
                *at++ = 'r';
                return at;
            case '\t':
                *at++ = 't';
                return at;
            default:
                break;
        }
        *at++ = 'u';
        *at++ = '0';
        *at++ = '0';
        *at++ = digits[byte >> 4];
        *at++ = digits[byte & 15];
        return at;
    }

    const QORAnswerOutput m_output;
    bool m_taken = true;        ///< until the output takes no more
    std::array<Tag, 8> m_tags;  ///< each at its remainder
    std::unique_ptr<char[]> m_buffer;
    char* m_at;
    char* const m_end;
};

/// Writes elements as notation, error entries left out if so asked.
class TreeWriter {
public:
    TreeWriter(BlockWriter& out, bool liftErrors) : m_out(out), m_liftErrors(liftErrors) {}

    /// The element with all below it.
    void writeElement(const QORMessageNode& top) {
        const QORMessageNode* node = &top;
        for (;;) {
            const QORMessageNode* next = open(*node);
            if (next == nullptr) {
                m_out.put(']');
                while (node != &top && (next = shown(node->next)) == nullptr) {
                    node = node->parent;
                    m_out.put("]]");
                }
                if (node == &top) return;
                m_out.put(',');
            }
            node = next;
        }
    }

    /// A row as its elements would be written.
    void writeRow(std::span<const QORRowValue> values) {
        m_out.putTag(tag::row);
        if (values.empty()) m_out.dropComma();
        for (const QORRowValue& value : values) {
            m_out.put(&value == values.data() ? '[' : ',');
            m_out.putTag(tag::value);
            value.kind == QORValueKind::None ? m_out.dropComma() : putValue(value.bytes, value.kind);
            m_out.put(']');
        }
        if (!values.empty()) m_out.put(']');
        m_out.put(']');
    }

    /// The children of a root, separated by commas.
    void writeChildren(const QORMessageNode& root) {
        for (const QORMessageNode* node = shown(root.firstChild); node != nullptr;) {
            writeElement(*node);
            node = shown(node->next);
            if (node != nullptr) m_out.put(',');
        }
    }

private:
    /// Writes an element up to its children and returns the first of them; null when it has none.
    const QORMessageNode* open(const QORMessageNode& node) {
        m_out.putTag(node.tag);
        if (node.kind == QORValueKind::None) {
            const QORMessageNode* const child = shown(node.firstChild);
            child != nullptr ? m_out.put('[') : m_out.dropComma();
            return child;
        }
        putValue({node.data, node.size}, node.kind);
        return nullptr;
    }

    void putValue(std::string_view value, QORValueKind kind) {
        kind == QORValueKind::Text ? m_out.putText(value) : m_out.putBinary(value);
    }

    /// The first element to write from `node` on along its siblings.
    const QORMessageNode* shown(const QORMessageNode* node) {
        if (!m_liftErrors) return node;
        while (node != nullptr && isErrorEntry(*node))
            node = node->next;
        return node;
    }

    BlockWriter& m_out;
    const bool m_liftErrors;
};

void putError(int code, std::string_view message, BlockWriter& out) {
    out.put("\"error\":{\"code\":");
    out.putNumber(code);
    out.put(",\"message\":");
    out.putText(message);
    out.put('}');
}

void putClient(const QORClientDescription& client, BlockWriter& out) {
    out.put(",\"client\":{\"fullAccess\":");
    client.fullAccess ? out.put("true") : out.put("false");
    out.put(",\"sids\":[");
    bool first = true;
    for (const auto& sid : client.sids) {
        if (!first) out.put(',');
        first = false;
        out.put("{\"principalId\":");
        out.putNumber(sid.principalId);
        out.put(",\"principalType\":");
        out.putNumber(sid.principalType);
        out.put(",\"eid\":");
        out.putText(sid.eid.isValid() ? sid.eid.toString() : std::string());
        out.put('}');
    }
    out.put("]}");
}

/// Runs a writer whose blocks are appended to a string.
template <class Write>
void appendTo(std::string& out, Write write) {
    BlockWriter blocks([&out](std::string_view block) {
        out.append(block);
        return true;
    });
    write(blocks);
    blocks.flush();
}

void putResponse(const QORMessage& response, BlockWriter& out) {
    TreeWriter tree(out, true);
    out.put("{\"response\":[");
    tree.writeChildren(*response.rootNode());
    out.put(']');
    if (QORAnswerError error; findError(response, error)) {
        out.put(',');
        putError(error.code, error.message, out);
    }
    out.put('}');
}

/// An answer that is written as it comes.
class NotationAnswer final : public QORAnswerFormat {
public:
    explicit NotationAnswer(QORAnswerOutput output) : m_out(std::move(output), blockSize), m_tree(m_out, true) {
        m_out.put("{\"response\":[");
    }

    void element(const QORMessageNode& element) override {
        separate();
        m_tree.writeElement(element);
    }
    void openRows(const QORMessageNode& rowSet) override {
        separate();
        m_out.putTag(rowSet.tag);
        m_out.dropComma();
        m_childless = true;
    }
    void child(const QORMessageNode& child) override {
        beginChild();
        m_tree.writeElement(child);
    }
    void row(std::span<const QORRowValue> values) override {
        beginChild();
        m_tree.writeRow(values);
    }
    void closeRows() override { m_childless ? m_out.put(']') : m_out.put("]]"); }
    void end(const QORAnswerError* error) override {
        m_out.put(']');
        if (error != nullptr) {
            m_out.put(',');
            putError(error->code, error->message, m_out);
        }
        m_out.put('}');
        m_out.flush();
    }
    void flush() override { m_out.flush(); }

private:
    /// A block that leaves wakes who sends it and who reads it, which costs more than writing some hundred rows.
    static constexpr std::size_t blockSize = std::size_t{256} << 10;

    void beginChild() {
        m_childless ? m_out.put(",[") : m_out.put(',');
        m_childless = false;
    }
    void separate() {
        if (!std::exchange(m_first, false)) m_out.put(',');
    }

    BlockWriter m_out;
    TreeWriter m_tree;
    bool m_first = true;
    bool m_childless = true;
};

}  // namespace

void writeRequest(const QORRequestEnvelope& request, std::string& out) {
    appendTo(out, [&request](BlockWriter& blocks) {
        blocks.put("{\"operator\":");
        blocks.putText(request.operatorName);
        blocks.put(",\"request\":");
        blocks.putText(request.requestName);
        if (!request.body.empty()) {
            blocks.put(",\"body\":");
            TreeWriter(blocks, false).writeElement(*request.body.rootNode()->firstChild);
        }
        if (request.client) putClient(*request.client, blocks);
        blocks.put('}');
    });
}

void writeElement(const QORMessageNode& node, std::string& out) {
    appendTo(out, [&node](BlockWriter& blocks) {
        TreeWriter tree(blocks, false);
        node.parent == nullptr ? tree.writeChildren(node) : tree.writeElement(node);
    });
}

void writeResponse(const QORMessage& response, std::string& out) {
    appendTo(out, [&response](BlockWriter& blocks) { putResponse(response, blocks); });
}

void writeResponse(const QORMessage& response, const QORTextSink& sink) {
    BlockWriter blocks([&sink](std::string_view block) {
        sink(block);
        return true;
    });
    putResponse(response, blocks);
    blocks.flush();
}

std::unique_ptr<QORAnswerFormat> makeNotationAnswer(QORAnswerOutput output) {
    return std::make_unique<NotationAnswer>(std::move(output));
}

void writeErrorResponse(int code, std::string_view message, std::string& out) {
    appendTo(out, [code, message](BlockWriter& blocks) {
        blocks.put("{\"response\":[],");
        putError(code, message, blocks);
        blocks.put('}');
    });
}

void writeNotationText(std::string_view text, std::string& out) {
    appendTo(out, [text](BlockWriter& blocks) { blocks.putText(text); });
}

}  // namespace QOR
