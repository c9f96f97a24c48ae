#include "commands/ExportFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "ingest/QORRecordExport.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

constexpr std::size_t readBlock = 256 * 1024;

/// An end is only one with its line's end.
std::string_view within(std::string_view line, std::string_view begin) {
    return line.substr(begin.size(), line.size() - begin.size() - 1);
}

/// Whether a text is how something begins, as far as there is any of it.
bool isBeginOf(std::string_view text, std::string_view begin) {
    return begin.starts_with(text.substr(0, begin.size()));
}

/// \returns none that is open where there is no file
QORFileDescriptor openToRead(const std::string& path) {
    try {
        return openOwnFile(path, O_RDONLY);
    } catch (const QORException& error) {
        if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return QORFileDescriptor();
        throw CtlError::usage("cannot read " + path + ": " + error.message());
    }
}

/// \returns what comes next; nothing at the end
std::string_view readNext(const QORFileDescriptor& file, const std::string& path, std::vector<char>& block) {
    for (;;) {
        const ssize_t got = ::read(file.get(), block.data(), block.size());
        if (got >= 0) return {block.data(), static_cast<std::size_t>(got)};
        if (errno != EINTR)
            throw CtlError::usage("cannot read " + path + ": " + std::generic_category().message(errno));
    }
}

}  // namespace

bool ExportLines::take(std::string_view piece) {
    bool any = false;
    while (!piece.empty() && !m_other) {
        const std::size_t end = piece.find('\n');
        m_line.append(piece.substr(0, end));
        if (!m_goesOn && m_size == 0 && !isBeginOf(m_line, exportPositionBegin)) {
            m_other = true;
            return any;
        }
        if (end == std::string_view::npos) return any;
        piece.remove_prefix(end + 1);
        any = takeLine() || any;
        m_size += static_cast<off_t>(m_line.size() + 1);
        m_line.clear();
    }
    return any;
}

bool ExportLines::takeLine() {
    m_ended = m_line.starts_with(exportEndBegin);
    if (!m_line.starts_with(exportPositionBegin)) return m_ended;
    m_position = QORExportPosition::ofText(within(m_line, exportPositionBegin));
    m_positionEnd = m_size + static_cast<off_t>(m_line.size() + 1);
    return true;
}

ExportLines readExportFile(const std::string& path) {
    ExportLines lines(false);
    const QORFileDescriptor file = openToRead(path);
    if (file.get() < 0) return lines;
    std::vector<char> block(readBlock);
    for (;;) {
        const std::string_view got = readNext(file, path, block);
        if (got.empty()) return lines;
        try {
            lines.take(got);
        } catch (const QORException& error) {
            throw CtlError::usage(path + " holds a position that is none: " + error.message());
        }
        if (lines.isOther())
            throw CtlError::usage(path + " holds something else than the beginning of an export; it is left as it is");
    }
}

void checkReplaced(const std::string& path) {
    std::error_code unseen;
    if (!std::filesystem::is_regular_file(path, unseen)) return;
    const QORFileDescriptor file = openToRead(path);
    if (file.get() < 0) return;
    std::vector<char> block(exportPositionBegin.size());
    const std::string_view begin = readNext(file, path, block);
    if (isBeginOf(begin, exportPositionBegin) || isBeginOf(begin, exportRecordBegin)) return;
    throw CtlError::usage(path + " holds something else than records; it is left as it is. Name another file");
}

}  // namespace QOR
