/// \file
/// Sources as collectors should not meet them.
#pragma once

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

/// Copies a tree to a folder that is not there yet, but for what is neither file nor folder. \param damage null: none
/// \throws std::filesystem::filesystem_error
void copyTree(const std::filesystem::path& tree, const std::filesystem::path& folder, const Damage* damage);

/// Puts folders in place of the files of a tree.
void putFoldersForFiles(const std::filesystem::path& tree);

}  // namespace QOR
