/// \file
/// The system's journal, read forwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct sd_journal;

namespace QOR {

/// What there is to be read of a journal.
struct JournalFiles {
    std::size_t count = 0;
    std::vector<std::string> unreadable{};  ///< with the reason
};
/// Looks below var/log/journal and run/log/journal of that folder.
JournalFiles findJournalFiles(const std::filesystem::path& root);

/// Entries of all files below the two folders together, oldest first. Used by one thread. Its functions throw
/// std::system_error when the journal cannot be read.
class Journal {
public:
    explicit Journal(const std::filesystem::path& root);

    // Which entries are given, all until then; said in this order, and before going to one of them.
    void match(std::string_view field, std::string_view value);  ///< several of one field: any of them
    void orMatch();                                              ///< or what follows
    void andMatch();                                             ///< and besides what follows

    /// The next entry is the first of those in so many microseconds before the last one. Of none there is none.
    void seekLast(std::uint64_t microseconds);
    /// The next entry is the one behind that of the cursor; where that is no more, the first one that came after it.
    /// \returns whether it is there
    bool seekBehind(const std::string& cursor);

    /// \returns false behind the last one
    bool next();
    /// Of the present entry: the text of the first field of that name, cut where it is very long; empty where it has
    /// none. In whatever bytes.
    std::string field(const char* name) const;
    std::uint64_t time() const;  ///< when it came, in microseconds since the epoch
    /// Names it, also in a later process: a text without blanks.
    std::string cursor() const;

private:
    static void close(sd_journal* journal);
    bool step();

    std::unique_ptr<sd_journal, void (*)(sd_journal*)> m_journal;
    bool m_stands = false;  ///< at an entry that next() is still to give
};

}  // namespace QOR
