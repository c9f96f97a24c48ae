#include "ingest/LineReader.h"

namespace QOR {
namespace {

constexpr std::size_t blockBytes = 64 * 1024;
constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

}  // namespace

LineReader::LineReader(std::istream& stream, std::size_t maxBytes, std::uint64_t firstNumber)
    : m_stream(&stream), m_maxBytes(maxBytes), m_number(firstNumber) {}

LineReader::LineReader(std::string_view text, std::size_t maxBytes, std::uint64_t firstNumber)
    : m_rest(text), m_maxBytes(maxBytes), m_number(firstNumber) {}

bool LineReader::fill() {
    if (m_stream == nullptr) return false;
    m_block.resize(blockBytes);
    m_stream->read(m_block.data(), static_cast<std::streamsize>(blockBytes));
    m_rest = std::string_view(m_block).substr(0, static_cast<std::size_t>(m_stream->gcount()));
    return !m_rest.empty();
}

void LineReader::finish(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!m_started && line.starts_with(byteOrderMark)) line.remove_prefix(byteOrderMark.size());
    if (m_started) ++m_number;
    m_started = true;
    m_tooLong = m_tooLong || line.size() > m_maxBytes;
    m_line = m_tooLong ? std::string_view() : line;
}

bool LineReader::next() {
    m_partial.clear();
    m_tooLong = false;
    bool any = false;
    for (;;) {
        if (m_rest.empty() && !fill()) {
            if (!any) return false;
            finish(m_partial);
            return true;
        }
        any = true;
        const std::size_t end = m_rest.find('\n');
        const std::string_view piece = m_rest.substr(0, end);
        m_rest.remove_prefix(end == std::string_view::npos ? m_rest.size() : end + 1);
        if (end != std::string_view::npos && m_partial.empty() && !m_tooLong) {
            finish(piece);
            return true;
        }
        // What is too long already is passed over, not kept. Two bytes more: they may be the line's end.
        if (m_partial.size() + piece.size() > m_maxBytes + 2) m_tooLong = true;
        if (!m_tooLong) m_partial += piece;
        if (end != std::string_view::npos) {
            finish(m_partial);
            return true;
        }
    }
}

}  // namespace QOR
