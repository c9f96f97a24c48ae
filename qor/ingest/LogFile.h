/// \file
/// LogFile: lines of a file that may be packed; and what reading of a log with its rotations comes to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

struct gzFile_s;

namespace QOR {

/// What became of a log and its rotations.
struct LogReading {
    std::size_t files = 0;                  ///< that there are, those too that were not read
    std::uint64_t malformed = 0;            ///< lines that are none of the log's
    std::vector<std::string> unreadable{};  ///< files that could not be read, or not to their end, with the reason
};

/// Reads a file from its beginning, plain or gzip. One thread at a time.
class LogFile {
public:
    /// Opens it; whether that went well says error(). \param longest bytes that a line may have
    LogFile(const std::filesystem::path& path, std::size_t longest);

    /// False at the end, and where the file cannot be read on. What is too long or holds NUL bytes is given as a line
    /// feed alone, which is no line of a log. A last line without an end is still being written: it is left out.
    bool next(std::string& line);

    /// Why it could not be opened or read on; empty where it could.
    const std::string& error() const noexcept { return m_error; }

private:
    static void closeFile(gzFile_s* file);
    void skipLine();
    bool fail();

    std::unique_ptr<gzFile_s, void (*)(gzFile_s*)> m_file;
    std::vector<char> m_buffer;
    std::string m_error;
};

}  // namespace QOR
