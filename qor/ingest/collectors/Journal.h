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

#include "QORCommon/QORFiles.h"

struct sd_journal;

namespace QOR {

/// The files of a journal, opened: those below var/log/journal and run/log/journal of a folder. Files that cannot be
/// opened, or that are no sound journals, are left out and told, others are read none the less.
class JournalFiles {
public:
    explicit JournalFiles(const std::filesystem::path& root);

    /// Whether there are any, readable or not.
    bool areThere() const noexcept { return !m_files.empty() || !m_unreadable.empty(); }
    /// Which cannot be read, with the reason.
    const std::vector<std::string>& unreadable() const noexcept { return m_unreadable; }
    /// Tells whether those are the same as in another run, by whatever names; empty where there are none.
    std::string unreadableOnes() const;

private:
    friend class Journal;
    struct File {
        std::string path;
        QORFileDescriptor descriptor;
        std::int64_t size = 0;  ///< when it was opened
    };
    void findAll(const std::filesystem::path& root);
    void find(const std::filesystem::path& folder);
    void add(const std::filesystem::path& path);
    void leaveOut(const std::string& path, int error);
    std::vector<int> descriptors() const;

    std::vector<File> m_files;
    std::vector<std::string> m_unreadable;
    std::vector<std::string> m_unreadableIds;
    bool m_hasMissedOne = false;  ///< that was renamed or removed between finding and opening it
};

/// Entries of all files together, oldest first. Used by one thread. Its functions throw std::system_error when the
/// journal cannot be read.
class Journal {
public:
    /// \param files live longer
    explicit Journal(const JournalFiles& files);

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

    /// A file was cut while it was read, or its disk did not give it: what the last entry told may be wrong.
    bool hasLostGround() const noexcept { return m_hasLostGround; }
    /// Whether all files could be read so far. One that turns out to be damaged is read no further, the others are.
    bool isWhole() const;

private:
    static void close(sd_journal* journal);
    bool step();
    /// Asks the library, which reads files through memory. \returns what it does
    template <class Function, class... Arguments>
    int ask(Function* function, Arguments... arguments) const;

    const JournalFiles& m_files;
    std::unique_ptr<sd_journal, void (*)(sd_journal*)> m_journal;
    bool m_stands = false;  ///< at an entry that next() is still to give
    mutable bool m_hasLostGround = false;
};

}  // namespace QOR
