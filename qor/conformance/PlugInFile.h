/// \file
/// What a library says of itself before anything of it is run.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace QOR {

struct PlugInFile {
    std::vector<std::string> offered;  ///< names that others may use
    std::vector<std::string> wanted;   ///< those that it cannot do without, of other libraries
    std::vector<std::string> needed;   ///< libraries, by their names
};

/// \throws QORException errFailure for what cannot be read, or is no library of this machine's kind
PlugInFile readPlugInFile(const std::filesystem::path& file);

}  // namespace QOR
