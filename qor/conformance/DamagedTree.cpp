#include "conformance/DamagedTree.h"

#include <cstddef>
#include <fstream>
#include <iterator>
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

std::vector<fs::path> filesOf(const fs::path& tree) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(tree))
        if (entry.is_regular_file()) files.push_back(entry.path());
    return files;
}

}  // namespace

std::span<const Damage> damages() {
    return all;
}

void copyTree(const fs::path& tree, const fs::path& folder, const Damage* damage) {
    fs::create_directories(folder);
    for (const fs::path& file : filesOf(tree)) {
        const fs::path copy = folder / file.lexically_relative(tree);
        fs::create_directories(copy.parent_path());
        std::ifstream stream(file, std::ios::binary);
        const std::string content(std::istreambuf_iterator<char>(stream), {});
        std::ofstream(copy, std::ios::binary) << (damage == nullptr ? content : damage->change(content));
    }
}

void putFoldersForFiles(const fs::path& tree) {
    for (const fs::path& file : filesOf(tree)) {
        fs::remove(file);
        fs::create_directory(file);
    }
}

}  // namespace QOR
