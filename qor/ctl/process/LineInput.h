/// \file
/// Lines from a file descriptor, which a command waits for without being deaf to a stop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace QOR {

/// Reads lines of bounded length. A carriage return before the line feed is not part of a line; the last line needs no
/// line feed. One thread.
class LineInput {
public:
    enum class Got { Line, End, Stopped };

    /// \param descriptor read from, not owned
    /// \param stop a descriptor that becomes readable when waiting is to end, -1 for none; not owned
    /// \param maxBytes a longer line is cut to its first maxBytes bytes
    LineInput(int descriptor, int stop, std::size_t maxBytes)
        : m_descriptor(descriptor), m_stop(stop), m_maxBytes(maxBytes) {}

    /// \throws CtlError when the input cannot be read
    Got next();
    /// Valid until next().
    std::string_view line() const noexcept { return m_line; }
    /// True when the line was longer than it may be.
    bool isCut() const noexcept { return m_cut; }
    /// True when a further line is there without waiting.
    bool isReady() const noexcept { return m_buffer.find('\n', m_at) != std::string::npos; }

private:
    enum class Filled { More, End, Stopped };
    Filled fill();
    void takeLine(std::size_t end);

    int m_descriptor;
    int m_stop;
    std::size_t m_maxBytes;
    std::string m_buffer;
    std::size_t m_at = 0;  ///< where the next line begins
    std::string_view m_line;
    bool m_cut = false;
    bool m_end = false;
};

/// A file opened for reading, or standard input for "-" and the empty path. Owns what it opened.
class InputFile {
public:
    /// \throws CtlError BadUsage naming the file and the reason, for a folder too
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    int descriptor() const noexcept { return m_descriptor; }
    /// The file, or "standard input", for people.
    const std::string& name() const noexcept { return m_name; }
    /// What a regular file goes on with, without taking it: as much of it as there is, and as is asked for. Nothing of
    /// what comes from elsewhere, which would have to be waited for.
    std::optional<std::string> beginning(std::size_t bytes) const;
    /// Of a regular file; 0 of what comes from elsewhere.
    std::uint64_t bytesLeft() const noexcept;
    /// Everything to the end. \throws CtlError BadUsage when it cannot be read or is larger than `maxBytes`
    std::string readAll(std::size_t maxBytes) const;

private:
    std::string m_name;
    int m_descriptor;
    bool m_owned;
};

}  // namespace QOR
