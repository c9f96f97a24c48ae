/// \file
/// LineReader: lines of a stream or of a text, with a bound on their length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <string_view>

namespace QOR {

/// Lines end with a line feed, the last one also with the end of the input; a carriage return before it is not part
/// of the line, nor is a byte order mark at the beginning of the input. One thread at a time.
class LineReader {
public:
    /// \param firstNumber the number of the first line
    LineReader(std::istream& stream, std::size_t maxBytes, std::uint64_t firstNumber = 1);
    LineReader(std::string_view text, std::size_t maxBytes, std::uint64_t firstNumber = 1);

    /// Moves to the next line. False at the end.
    bool next();
    /// Valid until the next call of next(); empty when the line is too long.
    std::string_view line() const noexcept { return m_line; }
    bool tooLong() const noexcept { return m_tooLong; }
    std::uint64_t number() const noexcept { return m_number; }

private:
    bool fill();
    void finish(std::string_view line);

    std::istream* m_stream = nullptr;
    std::string m_block;
    std::string_view m_rest;  // of the block or the text, not yet given out
    std::string m_partial;    // a line that began in an earlier block
    std::string_view m_line;
    std::size_t m_maxBytes;
    std::uint64_t m_number;
    bool m_started = false;
    bool m_tooLong = false;
};

}  // namespace QOR
