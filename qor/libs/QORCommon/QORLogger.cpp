#include "QORCommon/QORLogger.h"

#include <fcntl.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORNoDestructor.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

constexpr int defaultLevel = 1;
/// A log tells of other people's business.
constexpr mode_t logFileMode = 0600;

/// Appends to a file that has been opened. One thread at a time.
class FileSink final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
public:
    explicit FileSink(const std::string& path)
        : m_file(openOwnFile(path, O_WRONLY | O_APPEND | O_CREAT, logFileMode)) {}

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        for (std::size_t written = 0; written < line.size();) {
            const ssize_t size = ::write(m_file.get(), line.data() + written, line.size() - written);
            if (size < 0 && errno != EINTR) throw spdlog::spdlog_ex("cannot write", errno);
            if (size > 0) written += static_cast<std::size_t>(size);
        }
    }
    void flush_() override {}

private:
    const QORFileDescriptor m_file;
};

spdlog::level::level_enum backendLevel(int level) {
    switch (level) {
        case 0:
            return spdlog::level::err;
        case 1:
            return spdlog::level::warn;
        case 2:
        case 3:
            return spdlog::level::info;
        case 4:
            return spdlog::level::debug;
        default:
            return level < 0 ? spdlog::level::err : spdlog::level::trace;
    }
}

/// Whether standard error is the journal of the system: it says so by naming the stream's file.
bool isJournal(int descriptor) noexcept {
    const char* const named = std::getenv("JOURNAL_STREAM");
    struct stat file {};
    if (named == nullptr || ::fstat(descriptor, &file) != 0) return false;
    char here[48];
    std::snprintf(here, sizeof here, "%llu:%llu", static_cast<unsigned long long>(file.st_dev),
                  static_cast<unsigned long long>(file.st_ino));
    return std::strcmp(named, here) == 0;
}

/// The journal's priority: 3 errors, 4 warnings, 5 notices, 6 information, 7 details.
int priorityOf(int level) noexcept {
    return std::clamp(level, 0, 4) + 3;
}

/// Where lines go.
struct Backend {
    std::shared_ptr<spdlog::logger> logger;
    bool isJournal = false;  ///< which knows the time, and is told the priority
};

std::shared_ptr<spdlog::logger> makeLogger(spdlog::sink_ptr sink, bool withTime) {
    auto logger = std::make_shared<spdlog::logger>("qor", std::move(sink));
    logger->set_level(spdlog::level::trace);  // what is dropped is decided here, by the numeric levels
    logger->set_pattern(withTime ? "%Y-%m-%dT%H:%M:%S.%e+0000 %v" : "%v", spdlog::pattern_time_type::utc);
    logger->flush_on(spdlog::level::trace);
    return logger;
}

Backend standardError() {
    const bool journal = isJournal(STDERR_FILENO);
    return {makeLogger(std::make_shared<spdlog::sinks::stderr_sink_mt>(), !journal), journal};
}

/// The logger's state. Never destroyed, because plug-ins may log while the process ends.
struct Logger {
    std::atomic<int> level{defaultLevel};
    std::mutex mutex;  ///< guards the members below and is held while a line is written
    Backend backend = standardError();
    QORLogSink sink;
};

Logger& theLogger() {
    static QORNoDestructor<Logger> logger;
    return *logger;
}

/// True while this thread is inside a sink: a sink that logs would wait for itself.
thread_local bool insideSink = false;

std::string_view viewOf(const char* text) {
    return text == nullptr ? std::string_view() : std::string_view(text);
}

void writeToBackend(const Backend& backend, const QORLogRecord& record) {
    const std::string priority = backend.isJournal ? "<" + std::to_string(priorityOf(record.level)) + ">" : "";
    backend.logger->log(backendLevel(record.level), "{}{} {} {} {}: {}", priority, record.level, record.module,
                        record.sourcePath, record.function, record.text);
}

void dispatch(const QORLogRecord& record) {
    Logger& logger = theLogger();
    if (insideSink) return;
    const std::lock_guard lock(logger.mutex);
    insideSink = true;
    try {
        if (logger.sink) {
            logger.sink(record);
        } else {
            writeToBackend(logger.backend, record);
        }
    } catch (...) {
        // A line that cannot be written must not fail the request that it speaks of.
        static_cast<void>(std::fputs("qor: a log line could not be written\n", stderr));
    }
    insideSink = false;
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

/// The text with control characters escaped; most texts have none and are not copied.
std::string_view oneLine(std::string_view text, std::string& copy) {
    bool clean = true;
    for (const char c : text)
        clean = clean && !isControl(c);
    if (clean) return text;
    copy.clear();
    constexpr std::string_view digits = "0123456789abcdef";
    for (const char c : text) {
        if (!isControl(c)) {
            copy += c;
        } else if (c == '\n') {
            copy += "\\n";
        } else {
            copy += "\\x";
            copy += digits[static_cast<unsigned char>(c) >> 4];
            copy += digits[static_cast<unsigned char>(c) & 15];
        }
    }
    return copy;
}

}  // namespace

void logMessage(int level, const char* module, const char* sourcePath, const char* function, const char* format, ...) {
    if (level > logLevel()) return;
    char buffer[1024];
    std::string large;
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    if (length < 0) return;
    std::string_view text(buffer, static_cast<std::size_t>(length));
    if (text.size() >= sizeof buffer) {
        large.resize(text.size());
        va_start(arguments, format);
        static_cast<void>(std::vsnprintf(large.data(), large.size() + 1, format, arguments));
        va_end(arguments);
        text = large;
    }
    std::string copy;
    dispatch({level, viewOf(module), viewOf(sourcePath), viewOf(function), oneLine(text, copy)});
}

void setLogLevel(int level) {
    theLogger().level.store(level, std::memory_order_relaxed);
}

int logLevel() noexcept {
    return theLogger().level.load(std::memory_order_relaxed);
}

void setLogFile(const std::string& path) {
    Backend backend;
    if (path.empty()) {
        backend = standardError();
    } else {
        try {
            backend = {makeLogger(std::make_shared<FileSink>(path), true)};
        } catch (const QORException& error) {
            throw QORException(errFailure, "the log file: " + error.message());
        }
    }
    Logger& logger = theLogger();
    const std::lock_guard lock(logger.mutex);
    std::swap(logger.backend, backend);
}

void setLogSink(QORLogSink sink) {
    Logger& logger = theLogger();
    const std::lock_guard lock(logger.mutex);
    logger.sink = std::move(sink);
}

}  // namespace QOR
