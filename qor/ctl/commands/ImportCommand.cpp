#include <optional>
#include <string>
#include <string_view>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "commands/RecordStream.h"
#include "ingest/QORRecordExport.h"
#include "process/Interrupt.h"
#include "process/LineInput.h"

namespace QOR {
namespace {

/// One byte more than a record may have, so that a line that is cut here is still refused there as too long.
constexpr std::size_t lineLimit = QORIngestOptions{}.maxLineBytes + 1;

/// What a file is that holds no records, and what to do with it; empty for any that may hold some.
std::string describeOtherFile(const std::string& name, std::string_view beginning) {
    constexpr std::string_view gzip = "\x1f\x8b";
    struct Packed {
        std::string_view beginning;
        const char* tool;
    };
    constexpr Packed packed[] = {{"\xfd"
                                  "7zXZ",
                                  "xz"},
                                 {"BZh", "bzip2"},
                                 {"\x28\xb5\x2f\xfd", "zstd"}};
    for (const Packed& one : packed)
        if (beginning.starts_with(one.beginning))
            return name + " is compressed with " + one.tool + "; take it apart first: " + one.tool +
                   " -dc FILE | qorctl import -";
    constexpr std::string_view sqlite("SQLite format 3\0", 16);
    constexpr std::string_view wideTexts[] = {"\xff\xfe", "\xfe\xff"};
    if (beginning.starts_with(gzip))
        return name + " is compressed with gzip; take it apart first: gunzip -c FILE | qorctl import -";
    if (beginning.starts_with(sqlite))
        return name + " is a database of SQLite; qorctl copy --from FILE moves what is in it";
    for (const std::string_view mark : wideTexts)
        if (beginning.starts_with(mark)) return name + " is a text in UTF-16; records are in UTF-8";
    if (beginning.find('\0') != std::string_view::npos)
        return name + " is a binary file; records are one JSON object a line";
    if (beginning.starts_with("["))
        return name + " begins with a list; records are one JSON object a line, without anything around them";
    return {};
}

/// \returns whether there is anything in it
bool looksLikeRecords(const InputFile& input) {
    constexpr std::size_t enough = 4096;
    const std::optional<std::string> beginning = input.beginning(enough);
    if (!beginning) return true;
    if (const std::string other = describeOtherFile(input.name(), *beginning); !other.empty())
        throw CtlError::usage(other);
    return !beginning->empty();
}

}  // namespace

void runImport(const ConnectionOptions& connection, const ImportOptions& options) {
    const InputFile input(options.file);
    if (!looksLikeRecords(input)) tellNote(input.name() + " is empty; there is nothing to store");
    const auto backend = makeBackend(connection, BackendUse::Store);
    const Interrupt interrupt;
    LineInput lines(input.descriptor(), interrupt.descriptor(), lineLimit);
    RecordStream records(*backend, options.report, {.bytes = input.bytesLeft()});
    bool lacksEnd = false;  // an export tells its positions, and its end
    while (!interrupt.isRequested() && lines.next() == LineInput::Got::Line) {
        if (lines.line().starts_with(exportPositionBegin)) lacksEnd = true;
        if (lines.line().starts_with(exportEndBegin)) lacksEnd = false;
        if (!records.add(lines.line())) break;
    }
    records.finish();
    if (lacksEnd && !interrupt.isRequested())
        tellNote(input.name() +
                 " is an export that was not written to its end; qorctl export --resume goes on with it");
    records.report(interrupt.isRequested());
}

}  // namespace QOR
