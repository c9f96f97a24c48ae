/// \file
/// The vocabulary files of a host: the one that is shipped, and on top of it the one that was named.
#pragma once

#include <filesystem>
#include <vector>

#include "QORLibLocal/QORVocabulary.h"

namespace QOR {

struct QORVocabularyFiles {
    QORPtr<const QORVocMap> vocabulary;       ///< never null
    std::vector<std::filesystem::path> read;  ///< those that could be used
    std::vector<QORVocMistake> mistakes;
};

/// \param named empty for none. A host without the shipped file has no vocabulary but this
/// \param rules of those who read the vocabulary; what breaks them is a mistake
QORVocabularyFiles readVocabularyFiles(const std::filesystem::path& named, std::vector<QORVocCategoryRule> rules);

/// The same for a host that is about to work with it: mistakes are logged.
/// \throws QORException 1 telling why a file cannot be used
QORPtr<const QORVocMap> usableVocabulary(const std::filesystem::path& named, std::vector<QORVocCategoryRule> rules);

}  // namespace QOR
