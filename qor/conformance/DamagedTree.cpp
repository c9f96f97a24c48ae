#include "conformance/DamagedTree.h"

#include <cstddef>
#include <fstream>
#include <system_error>
#include <vector>

namespace QOR {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t lettersBetween = 3;
constexpr std::size_t manyBytes = std::size_t{1} << 20;

std::string emptied(const std::string&) {
    return {};
}
std::string halved(const std::string& content) {
    return content.substr(0, content.size() / 2);
}
/// Of a letter here and there comes a byte that UTF-8 does not have: what separates fields stays.
std::string misspelt(const std::string& content) {
    std::string changed = content;
    std::size_t letters = 0;
    for (char& ch : changed) {
        const bool isLetter = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z');
        if (isLetter && ++letters % lettersBetween == 0) ch = '\xff';
    }
    return changed;
}
std::string endless(const std::string& content) {
    return content + std::string(manyBytes, 'x');
}
std::string ofAnyBytes(const std::string&) {
    std::string bytes;
    for (std::size_t at = 0; at < 65536; ++at)
        bytes += static_cast<char>(at * at / 7);
    return bytes;
}

constexpr Damage all[] = {
    {"empty files", emptied},
    {"files that end in the middle", halved},
    {"bytes that are not UTF-8", misspelt},
    {"a line without an end", endless},
    {"files of any bytes", ofAnyBytes},
};

/// One more than mostFiles at most.
std::vector<fs::path> filesOf(const fs::path& tree) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(tree, fs::directory_options::skip_permission_denied)) {
        std::error_code unknown;
        if (entry.is_regular_file(unknown)) files.push_back(entry.path());
        if (files.size() > mostFiles) break;
    }
    return files;
}

/// One byte more than mostOfFile at most.
std::string contentOf(const fs::path& file) {
    std::string content(mostOfFile + 1, '\0');
    std::ifstream stream(file, std::ios::binary);
    stream.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(stream.gcount()));
    return content;
}

}  // namespace

std::span<const Damage> damages() {
    return all;
}

bool copyTree(const fs::path& tree, const fs::path& folder, const Damage* damage) {
    fs::create_directories(folder);
    std::vector<fs::path> files = filesOf(tree);
    bool isWhole = files.size() <= mostFiles;
    if (!isWhole) files.pop_back();
    std::size_t written = 0;
    for (const fs::path& file : files) {
        if (written >= mostOfTree) return false;
        const fs::path copy = folder / file.lexically_relative(tree);
        fs::create_directories(copy.parent_path());
        std::string content = contentOf(file);
        if (content.size() > mostOfFile) {
            content.pop_back();
            isWhole = false;
        }
        if (damage != nullptr) content = damage->change(content);
        std::ofstream(copy, std::ios::binary) << content;
        written += content.size();
    }
    return isWhole;
}

void putFoldersForFiles(const fs::path& tree) {
    for (const fs::path& file : filesOf(tree)) {
        fs::remove(file);
        fs::create_directory(file);
    }
}

}  // namespace QOR
