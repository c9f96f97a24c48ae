/// \file
/// Sources as collectors should not meet them.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace QOR {

/// What has become of each file of a tree.
struct Damage {
    std::string_view name;  ///< "empty files"
    /// \param content of the file \returns that of the damaged one
    std::string (*change)(const std::string& content);
};

std::span<const Damage> damages();
/// What it is called that a folder is there in place of each file.
constexpr std::string_view foldersForFiles = "folders in place of files";

/// What is taken of a tree.
constexpr std::size_t mostOfFile = std::size_t{16} << 20;
constexpr std::size_t mostOfTree = std::size_t{256} << 20;
constexpr std::size_t mostFiles = 10'000;

/// Copies a tree to a folder that is not there yet, but for what is neither file nor folder, what may not be read, and
/// what is more than the bounds above. \param damage null: none \returns whether it was within the bounds
/// \throws std::filesystem::filesystem_error
bool copyTree(const std::filesystem::path& tree, const std::filesystem::path& folder, const Damage* damage);

/// Puts folders in place of the files of a tree.
void putFoldersForFiles(const std::filesystem::path& tree);

}  // namespace QOR
