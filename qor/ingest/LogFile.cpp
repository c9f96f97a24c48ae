#include "ingest/LogFile.h"

#include <zlib.h>

#include <cerrno>
#include <cstring>

namespace QOR {

LogFile::LogFile(const std::filesystem::path& path, std::size_t longest)
    : m_file(gzopen(path.c_str(), "rb"), &closeFile), m_buffer(longest), m_error(m_file ? "" : std::strerror(errno)) {}

bool LogFile::next(std::string& line) {
    const int size = static_cast<int>(m_buffer.size());
    if (!m_file || gzgets(m_file.get(), m_buffer.data(), size) == nullptr) return fail();
    line.assign(m_buffer.data());
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
        return true;
    }
    if (gzeof(m_file.get()) != 0) return fail();
    if (line.size() + 1 == m_buffer.size()) skipLine();
    line.assign("\n");
    return true;
}

void LogFile::closeFile(gzFile_s* file) {
    if (file != nullptr) gzclose(file);
}

void LogFile::skipLine() {
    const int size = static_cast<int>(m_buffer.size());
    while (gzgets(m_file.get(), m_buffer.data(), size) != nullptr) {
        if (std::strchr(m_buffer.data(), '\n') != nullptr) return;
    }
}

bool LogFile::fail() {
    if (!m_file) return false;
    int code = Z_OK;
    const char* text = gzerror(m_file.get(), &code);
    if (code == Z_ERRNO) m_error = std::strerror(errno);
    if (code != Z_OK && code != Z_STREAM_END && code != Z_ERRNO) m_error = text;
    return false;
}

}  // namespace QOR
