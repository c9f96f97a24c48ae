/// \file
/// Whether a plug-in keeps to what hosts expect of one.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

struct QORPlugInFinding {
    enum class Level {
        Fine,
        Advice,  ///< it works, or could not be looked at
        Fault,
    };
    std::string check;  ///< "operator census: count"
    Level level = Level::Fine;
    std::string found;   ///< a sentence without its point
    std::string todo{};  ///< likewise, of what is not fine
};

struct QORPlugInCheckOptions {
    std::filesystem::path file;
    /// A tree with what its collectors read; empty: those checks are left out that need it.
    std::filesystem::path root{};
    /// A check that has said nothing for so long hangs.
    std::chrono::milliseconds patience = std::chrono::seconds(60);
    /// A descriptor that becomes, and stays, readable when no more is wanted; what was found by then is returned. -1:
    /// none
    int interrupt = -1;
};

/// Looks at the library, then has the running program load and use it in processes of their own, in which
/// checkPlugInInside() must be reached: a plug-in that crashes or hangs is a finding, and the checks behind it are made
/// in a further process. Nothing is kept: the database is a made-up one. \throws QORException errFailure where no
/// process or folder can be made
std::vector<QORPlugInFinding> checkPlugIn(const QORPlugInCheckOptions& options);

/// The first argument of such a process.
constexpr std::string_view plugInCheckQuestion = "__plugin-check";

/// What such a process does. \param arguments those behind the first one \returns its exit status
int checkPlugInInside(const std::vector<std::string>& arguments);

}  // namespace QOR
