/// \file
/// Loads plug-in libraries into the process and takes them out again.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace QOR {

/// The plug-ins of a process, in the order in which they were loaded. Loading a library makes its operator factories
/// known to QOROpFactoryRegistry; unloading it makes them unknown. Nothing that a plug-in made (operators, accessors,
/// sessions that hold them) may outlive its unloading. Not thread-safe: load before the first request, unload after
/// the last.
class QORPlugInLoader {
public:
    QORPlugInLoader() = default;
    ~QORPlugInLoader();
    QORPlugInLoader(const QORPlugInLoader&) = delete;
    QORPlugInLoader& operator=(const QORPlugInLoader&) = delete;

    /// A plug-in in use.
    struct PlugIn {
        std::filesystem::path file;
        void* handle;
    };
    /// A library that was found and refused.
    struct Refusal {
        std::filesystem::path file;
        std::string reason;  ///< names the file
    };

    /// Maps the library and calls its entry point. A library that cannot be mapped, lacks an entry point, whose
    /// entry point returns non-zero or throws, or that brings a collector of a name that cannot be used or is taken, is
    /// unmapped again. A library that is already loaded is left alone.
    /// \throws QORException errFailure naming the file and the reason
    void load(const std::filesystem::path& file);

    /// Loads every lib*.so of the folder in the order of their names. One that is refused keeps no other from being
    /// loaded; it is logged and returned.
    /// \throws QORException errFailure when the folder cannot be read
    std::vector<Refusal> loadDirectory(const std::filesystem::path& directory);

    /// Calls the exit points and unmaps the libraries, the last loaded first. What an exit point complains of is
    /// logged.
    void unloadAll() noexcept;

    const std::vector<PlugIn>& plugIns() const noexcept { return m_plugIns; }

private:
    std::vector<PlugIn> m_plugIns;
};

}  // namespace QOR
