#include "host/QORPlugInLoader.h"

#include <dlfcn.h>

#include <algorithm>
#include <string_view>
#include <system_error>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORFunctionality/QORCollector.h"
#include "QORFunctionality/QOROpFactory.h"

namespace QOR {
namespace {

using EntryPoint = int (*)();

/// A mapped library, unmapped unless it is kept.
class Library {
public:
    explicit Library(const std::filesystem::path& file) : m_file(file) {
        m_handle = ::dlopen(std::filesystem::absolute(file).c_str(), RTLD_NOW | RTLD_LOCAL);
        if (m_handle == nullptr) refuse(lastError());
    }
    ~Library() {
        if (m_handle != nullptr) ::dlclose(m_handle);
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    EntryPoint entryPoint(const char* name) const {
        void* const symbol = ::dlsym(m_handle, name);
        if (symbol == nullptr) refuse("it is no plug-in: " + lastError());
        return reinterpret_cast<EntryPoint>(symbol);
    }
    [[noreturn]] void refuse(const std::string& reason) const {
        throw QORException(errFailure, "cannot load plug-in " + m_file.string() + ": " + reason, QOR_SOURCE_PATH);
    }
    void* handle() const noexcept { return m_handle; }
    void* keep() noexcept { return std::exchange(m_handle, nullptr); }

private:
    static std::string lastError() {
        const char* const text = ::dlerror();
        return text == nullptr ? "no reason given" : text;
    }

    std::filesystem::path m_file;
    void* m_handle;
};

void callInit(const Library& library, EntryPoint init) {
    int result = 0;
    try {
        result = init();
    } catch (const std::exception& exception) {
        library.refuse(std::string("initQORPlugIn threw: ") + exception.what());
    } catch (...) {
        library.refuse("initQORPlugIn threw");
    }
    if (result != 0) library.refuse("initQORPlugIn returned " + std::to_string(result));
}

void callFini(const QORPlugInLoader::PlugIn& plugIn) noexcept {
    try {
        const auto fini = reinterpret_cast<EntryPoint>(::dlsym(plugIn.handle, "finiQORPlugIn"));
        const int result = fini();
        if (result == 0) return;
        logMessage(1, "QORHost", QOR_SOURCE_PATH, "unloadAll", "plug-in %s: finiQORPlugIn returned %d",
                   plugIn.file.c_str(), result);
    } catch (...) {
        logMessage(0, "QORHost", QOR_SOURCE_PATH, "unloadAll", "plug-in %s: finiQORPlugIn threw", plugIn.file.c_str());
    }
}

/// The first factory of a name serves it; says so when a plug-in brings one that will never be asked.
void warnOfShadowedOperators(const std::filesystem::path& file, const std::vector<std::string>& before) {
    const std::vector<std::string> after = QOROpFactoryRegistry::instance().names();
    for (std::size_t index = before.size(); index < after.size(); ++index) {
        if (std::find(before.begin(), before.end(), after[index]) == before.end()) continue;
        logMessage(1, "QORHost", QOR_SOURCE_PATH, "load",
                   "plug-in %s: operator \"%s\" is already served by another plug-in", file.c_str(),
                   after[index].c_str());
    }
}

bool isPlugInName(std::string_view name) {
    constexpr std::string_view prefix = "lib";
    constexpr std::string_view suffix = ".so";
    return name.size() > prefix.size() + suffix.size() && name.starts_with(prefix) && name.ends_with(suffix);
}

std::vector<std::filesystem::path> plugInFiles(const std::filesystem::path& directory) {
    std::error_code error;
    std::vector<std::filesystem::path> files;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        if (isPlugInName(entry->path().filename().string())) files.push_back(entry->path());
    }
    if (error) {
        throw QORException(errFailure, "cannot read plug-in folder " + directory.string() + ": " + error.message(),
                           QOR_SOURCE_PATH);
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

QORPlugInLoader::~QORPlugInLoader() {
    unloadAll();
}

void QORPlugInLoader::load(const std::filesystem::path& file) {
    const std::vector<std::string> before = QOROpFactoryRegistry::instance().names();
    const std::size_t refusedBefore = QORCollectorRegistry::instance().refusals().size();
    Library library(file);
    const bool loaded = std::any_of(m_plugIns.begin(), m_plugIns.end(),
                                    [&](const PlugIn& plugIn) { return plugIn.handle == library.handle(); });
    if (loaded) return;
    const std::vector<std::string> refused = QORCollectorRegistry::instance().refusals();
    if (refused.size() > refusedBefore) library.refuse(refused[refusedBefore]);
    const EntryPoint init = library.entryPoint("initQORPlugIn");
    library.entryPoint("finiQORPlugIn");
    m_plugIns.reserve(m_plugIns.size() + 1);
    callInit(library, init);
    m_plugIns.push_back({file, library.keep()});
    warnOfShadowedOperators(file, before);
    logMessage(3, "QORHost", QOR_SOURCE_PATH, "load", "plug-in %s loaded", file.c_str());
}

std::vector<QORPlugInLoader::Refusal> QORPlugInLoader::loadDirectory(const std::filesystem::path& directory) {
    std::vector<Refusal> refused;
    for (const std::filesystem::path& file : plugInFiles(directory)) {
        try {
            load(file);
        } catch (const QORException& exception) {
            logMessage(0, "QORHost", QOR_SOURCE_PATH, "loadDirectory", "%s", exception.what());
            refused.push_back({file, exception.message()});
        }
    }
    return refused;
}

void QORPlugInLoader::unloadAll() noexcept {
    while (!m_plugIns.empty()) {
        const PlugIn& plugIn = m_plugIns.back();
        callFini(plugIn);
        ::dlclose(plugIn.handle);
        m_plugIns.pop_back();
    }
}

}  // namespace QOR
