#include "conformance/FileChecks.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"
#include "conformance/PlugInFile.h"

namespace QOR {
namespace {

constexpr std::array<std::string_view, 2> entryPoints{"initQORPlugIn", "finiQORPlugIn"};
/// What linkers give every library.
constexpr std::array<std::string_view, 5> ofLinkers{"_init", "_fini", "_edata", "_end", "__bss_start"};
constexpr std::size_t mostNamed = 5;
constexpr const char* makeIt = "make it by qor_add_plugin() of find_package(QOR)";

template <class Names>
bool isAmong(const Names& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string readable(const std::string& symbol) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
        abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), &std::free);
    return status == 0 ? text.get() : symbol;
}

/// The first of them, in words.
std::string listed(std::vector<std::string> names) {
    const std::size_t all = names.size();
    names.resize(std::min(all, mostNamed));
    for (std::string& name : names)
        name = readable(name);
    return joinTexts(names) + (all > mostNamed ? " and " + std::to_string(all - mostNamed) + " more" : "");
}

CheckOutcome checkName(const std::filesystem::path& file) {
    const std::string name = file.filename().string();
    if (name.starts_with("lib") && name.ends_with(".so") && name.size() > 6) return CheckOutcome::fine(name);
    return CheckOutcome::fault("hosts pass over a file called " + quoteText(name), "call it lib<name>.so");
}

CheckOutcome checkLibrary(const PlugInFile& plugIn) {
    const auto found = std::find_if(plugIn.needed.begin(), plugIn.needed.end(),
                                    [](const std::string& name) { return name.starts_with("libqor.so"); });
    if (found == plugIn.needed.end())
        return CheckOutcome::fault("it is not linked to " QOR_LIBRARY_NAME, "link QOR::qor of find_package(QOR)");
    if (*found == QOR_LIBRARY_NAME) return CheckOutcome::fine("built for " + *found);
    return CheckOutcome::fault("it was built for " + *found + ", this is " QOR_LIBRARY_NAME,
                               "build it with the SDK of this version");
}

CheckOutcome checkEntryPoints(const PlugInFile& plugIn) {
    std::vector<std::string> missing;
    for (const std::string_view name : entryPoints)
        if (!isAmong(plugIn.offered, name)) missing.emplace_back(name);
    if (missing.empty()) return CheckOutcome::fine(joinTexts(entryPoints));
    return CheckOutcome::fault(
        "it does not offer " + joinTexts(missing, " nor "),
        "define them as QORFunctionality/QORPlugIn.h declares them, in a source that includes it");
}

CheckOutcome checkOffered(const PlugInFile& plugIn) {
    std::vector<std::string> further;
    for (const std::string& name : plugIn.offered)
        if (!isAmong(entryPoints, name) && !isAmong(ofLinkers, name)) further.push_back(name);
    if (further.empty()) return CheckOutcome::fine("nothing but the entry points");
    return CheckOutcome::advice("it offers " + listed(std::move(further)) + ", which may be taken for those of others",
                                makeIt);
}

}  // namespace

bool checkFile(const std::filesystem::path& file, std::vector<QORPlugInFinding>& findings) {
    const auto add = [&](const char* check, CheckOutcome outcome) {
        findings.push_back({check, outcome.level, std::move(outcome.found), std::move(outcome.todo)});
        return outcome.level != QORPlugInFinding::Level::Fault;
    };
    PlugInFile plugIn;
    try {
        plugIn = readPlugInFile(file);
    } catch (const QORException& exception) {
        add("file", CheckOutcome::fault(exception.message(), "name the library that was built"));
        return false;
    }
    add("file name", checkName(file));
    add("offers", checkOffered(plugIn));
    const bool isOfThisVersion = add("library", checkLibrary(plugIn));
    const bool hasEntryPoints = add("entry points", checkEntryPoints(plugIn));
    return isOfThisVersion && hasEntryPoints;
}

CheckOutcome checkSymbols(const std::filesystem::path& file) {
    const PlugInFile plugIn = readPlugInFile(file);
    // Stay loaded: the plug-in is about to need them.
    std::vector<void*> libraries;
    std::vector<std::string> unknown;
    for (const std::string& name : plugIn.needed) {
        void* const library = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (library != nullptr)
            libraries.push_back(library);
        else
            unknown.push_back(name);
    }
    std::vector<std::string> missing;
    for (const std::string& name : plugIn.wanted) {
        const bool isThere = ::dlsym(RTLD_DEFAULT, name.c_str()) != nullptr ||
                             std::any_of(libraries.begin(), libraries.end(),
                                         [&](void* library) { return ::dlsym(library, name.c_str()) != nullptr; });
        if (!isThere) missing.push_back(name);
    }
    if (missing.empty()) return CheckOutcome::fine("nothing is missing");
    // One that is found by a path of the plug-in's own is not found here; what it brings is seen when it is loaded.
    if (!unknown.empty())
        return CheckOutcome::advice(
            listed(std::move(missing)) + " could not be looked at: " + joinTexts(unknown) + " is not found by its name",
            "make sure that machines with the plug-in have it");
    return CheckOutcome::fault("nobody has " + listed(std::move(missing)),
                               "build it with the SDK of this version, and link what it uses");
}

}  // namespace QOR
