// The only unit that knows of toml++.
#include "backend/Contexts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#define TOML_HEADER_ONLY 1
#include <toml++/toml.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "QORCommon/QORFiles.h"
#include "QORCommon/QORText.h"
#include "process/CtlError.h"
#include "select/SelectAdvice.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;

/// A key of a context, and what it is kept in.
struct ContextKey {
    std::string_view name;
    std::string Context::*value;
};
constexpr std::array<ContextKey, 7> keys{{{"agent", &Context::agent},
                                          {"database", &Context::database},
                                          {"token", &Context::token},
                                          {"token-file", &Context::tokenFile},
                                          {"ca", &Context::ca},
                                          {"certificate", &Context::certificate},
                                          {"key", &Context::key}}};
constexpr std::array<std::string_view, 2> topKeys{"current", "context"};

std::string placeOf(const toml::source_region& source) {
    return " at line " + std::to_string(source.begin.line) + ", column " + std::to_string(source.begin.column);
}

/// \throws CtlError always
[[noreturn]] void refuse(const fs::path& file, const std::string& what, const toml::source_region& source) {
    throw CtlError::usage(file.string() + ": " + what + placeOf(source));
}

[[noreturn]] void refuseKey(const fs::path& file, const toml::key& key, std::span<const std::string_view> known) {
    throw CtlError::usage(file.string() + ": there is no key " + quoteText(key.str()) + placeOf(key.source()))
        .advised(adviseOnNames(key.str(), known));
}

std::string textOf(const fs::path& file, const toml::key& key, const toml::node& node) {
    const auto text = node.value_exact<std::string>();
    if (!text) refuse(file, quoteText(key.str()) + " is no text", node.source());
    return *text;
}

Context readContext(const fs::path& file, const toml::table& table) {
    Context context;
    for (const auto& [key, node] : table) {
        const ContextKey* known = nullptr;
        for (const ContextKey& each : keys)
            if (each.name == key.str()) known = &each;
        if (known == nullptr) {
            std::array<std::string_view, keys.size()> names;
            for (std::size_t at = 0; at < keys.size(); ++at)
                names.at(at) = keys.at(at).name;
            refuseKey(file, key, names);
        }
        context.*known->value = textOf(file, key, node);
    }
    if (context.agent.empty() == context.database.empty())
        refuse(file, "a context needs either an agent or a database", table.source());
    return context;
}

Contexts readTable(const fs::path& file, const toml::table& table) {
    Contexts contexts;
    for (const auto& [key, node] : table) {
        if (key.str() == "current") {
            contexts.current = textOf(file, key, node);
        } else if (key.str() == "context" && node.is_table()) {
            for (const auto& [name, one] : *node.as_table()) {
                if (!one.is_table())
                    refuse(file, "a context is written [context." + std::string(name.str()) + "]", one.source());
                contexts.all.emplace(name.str(), readContext(file, *one.as_table()));
            }
        } else {
            refuseKey(file, key, topKeys);
        }
    }
    return contexts;
}

void refuseOthers(const fs::path& file, const Contexts& contexts) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0 || (status.st_mode & (S_IRWXG | S_IRWXO)) == 0) return;
    for (const auto& [name, context] : contexts.all) {
        if (context.token.empty()) continue;
        throw CtlError::usage(file.string() + " holds a token (of " + quoteText(name) +
                              ") and may be read by others; chmod 600 " + file.string());
    }
}

[[noreturn]] void cannotWrite(const fs::path& file, const std::string& reason) {
    throw CtlError(CtlExit::AnsweredError, "cannot write " + file.string() + ": " + reason);
}

std::string written(const Contexts& contexts) {
    toml::table all;
    if (!contexts.current.empty()) all.insert("current", contexts.current);
    toml::table named;
    for (const auto& [name, context] : contexts.all) {
        toml::table one;
        for (const ContextKey& key : keys)
            if (!(context.*key.value).empty()) one.insert(key.name, context.*key.value);
        named.insert(name, std::move(one));
    }
    if (!contexts.all.empty()) all.insert("context", std::move(named));
    std::ostringstream text;
    text << all << '\n';
    return text.str();
}

}  // namespace

const Context& Contexts::find(const std::string& name) const {
    const auto found = all.find(name);
    if (found != all.end()) return found->second;
    std::vector<std::string_view> names;
    for (const auto& [each, context] : all)
        names.emplace_back(each);
    throw CtlError::usage("there is no context " + quoteText(name))
        .advised(names.empty() ? "qorctl context set makes one" : adviseOnNames(name, names));
}

fs::path contextsFile() {
    const char* const config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && *config == '/') return fs::path(config) / "qor" / "config.toml";
    const char* const home = std::getenv("HOME");
    return home == nullptr || *home != '/' ? fs::path() : fs::path(home) / ".config" / "qor" / "config.toml";
}

Contexts readContexts() {
    const fs::path file = contextsFile();
    if (file.empty() || ::access(file.c_str(), F_OK) != 0) return {};
    try {
        Contexts contexts = readTable(file, toml::parse_file(file.string()));
        refuseOthers(file, contexts);
        return contexts;
    } catch (const toml::parse_error& error) {
        refuse(file, std::string(error.description()), error.source());
    }
}

void writeContexts(const Contexts& contexts) {
    const fs::path file = contextsFile();
    if (file.empty()) cannotWrite("~/.config/qor/config.toml", "there is no home (HOME)");
    std::error_code error;
    fs::create_directories(file.parent_path(), error);
    if (error) cannotWrite(file, error.message());
    std::string beside = (file.parent_path() / "config.toml.XXXXXX").string();
    const QORFileDescriptor descriptor(::mkostemp(beside.data(), O_CLOEXEC));  // for its owner alone
    const std::string text = written(contexts);
    bool done = descriptor.get() >= 0 &&
                ::write(descriptor.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    done = done && ::fsync(descriptor.get()) == 0 && ::rename(beside.c_str(), file.c_str()) == 0;
    if (done) return;
    const int reason = errno;
    if (descriptor.get() >= 0) ::unlink(beside.c_str());
    cannotWrite(file, std::generic_category().message(reason));
}

}  // namespace QOR
