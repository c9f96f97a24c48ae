/// \file
/// A file that an export is written to: what there is of it already, and what comes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ingest/QORExportPosition.h"

namespace QOR {

/// Finds positions and the end among the lines of an export, however they are cut into pieces. Holds one line at a
/// time; used by one thread at a time.
class ExportLines {
public:
    /// \param goesOn they come behind a position, and may begin with any of the lines
    explicit ExportLines(bool goesOn) : m_goesOn(goesOn) {}

    /// \returns whether there was a position or the end in it \throws QORException errBadRequest for a position that is
    /// none
    bool take(std::string_view piece);

    /// The last one; nothing before the first.
    const std::optional<QORExportPosition>& position() const noexcept { return m_position; }
    /// Bytes up to behind it.
    off_t positionEnd() const noexcept { return m_positionEnd; }
    /// Everything has come.
    bool hasEnded() const noexcept { return m_ended; }
    /// Records up to the last position that lack a document.
    std::uint64_t unreadable() const noexcept { return m_position ? m_position->unreadable : 0; }
    /// The first line is there, or as much of it as has come, and it is not how an export begins.
    bool isOther() const noexcept { return m_other; }

private:
    bool takeLine();

    bool m_goesOn;
    std::string m_line;  ///< as far as it has come
    off_t m_size = 0;    ///< of all lines before it
    std::optional<QORExportPosition> m_position;
    off_t m_positionEnd = 0;
    bool m_ended = false;
    bool m_other = false;
};

/// What a file has of an export; nothing where there is no file. It may end in the middle of a line.
/// \throws CtlError BadUsage for a file that cannot be read, or holds something else: it is not to be written over
ExportLines readExportFile(const std::string& path);

/// Whether an export may take the place of what is there. A file is only written over when it is empty, or begins as
/// an export or other records do; what is no file keeps nothing.
/// \throws CtlError BadUsage for any other file, and one that cannot be read
void checkReplaced(const std::string& path);

}  // namespace QOR
