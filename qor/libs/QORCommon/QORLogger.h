/// \file
/// The host's logger: printf formats, numeric levels, one line a message.
///
/// A line carries the time, the level, the module tag, the source path, the function name and the text. Lower levels
/// are more important: 0 failure, 1 something a person should look at, 2 notable events, 3 progress, 4 detail,
/// 5 tracing. Lines of a level above logLevel() are dropped before they are formatted. Thread-safe.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// One message as a sink receives it; the texts are valid only during the call.
struct QORLogRecord {
    int level;
    std::string_view module;
    std::string_view sourcePath;
    std::string_view function;
    std::string_view text;
};

/// Where lines go. The default writes to standard error. A sink is called by one thread at a time; what it logs itself
/// is dropped, and it must not set the sink or the file.
using QORLogSink = std::function<void(const QORLogRecord&)>;

/// Formats and writes one message. \param format printf rules; control characters of arguments are written escaped,
/// so that one message is one line.
QOR_API void logMessage(int level, const char* module, const char* sourcePath, const char* function, const char* format,
                        ...) __attribute__((format(printf, 5, 6)));

/// The most detailed level that is written; 1 unless set.
QOR_API void setLogLevel(int level);
QOR_API int logLevel() noexcept;

/// Appends lines to a file instead of standard error; the empty path means standard error again. A new file can be read
/// by its user alone. The same path once more opens the file anew, as rotating it needs. Throws QORException when it
/// cannot be opened, see openOwnFile(); lines then go where they went.
QOR_API void setLogFile(const std::string& path);

/// Replaces the sink (for embedding and tests); an empty function restores the default. Returns nothing until no
/// other thread is inside the old sink.
QOR_API void setLogSink(QORLogSink sink);

}  // namespace QOR
