/// \file
/// Where a command's output goes: collected into blocks, then handed on.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace QOR {

/// A buffered byte stream. One thread. What was not flushed when it is destroyed is lost, so that a command that fails
/// decides itself what is still to be seen.
class Output {
public:
    virtual ~Output() = default;
    Output& operator<<(std::string_view text) {
        m_buffer += text;
        settle();
        return *this;
    }
    /// For writers that append many small pieces; they call settle() after each line or so.
    std::string& buffer() noexcept { return m_buffer; }
    void settle() {
        if (m_buffer.size() >= blockSize) flush();
    }
    void flush();

protected:
    virtual void write(std::string_view block) = 0;

private:
    static constexpr std::size_t blockSize = 64 * 1024;
    std::string m_buffer;
};

/// Onto a file descriptor, which is not owned.
class FileOutput final : public Output {
public:
    explicit FileOutput(int descriptor) noexcept : m_descriptor(descriptor) {}

protected:
    /// \throws BrokenPipe when nobody reads any more, CtlError for any other failure
    void write(std::string_view block) override;

private:
    int m_descriptor;
};

/// Into a text.
class TextOutput final : public Output {
public:
    const std::string& text() {
        flush();
        return m_text;
    }

protected:
    void write(std::string_view block) override { m_text += block; }

private:
    std::string m_text;
};

}  // namespace QOR
