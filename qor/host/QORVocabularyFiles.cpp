#include "host/QORVocabularyFiles.h"

#include <system_error>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "host/QORHostPaths.h"

namespace QOR {
QORVocabularyFiles readVocabularyFiles(const std::filesystem::path& named, std::vector<QORVocCategoryRule> rules) {
    QORVocReader reader(std::move(rules));
    QORVocabularyFiles files;
    const auto read = [&](const std::filesystem::path& file) {
        if (reader.readFile(file)) files.read.push_back(file);
    };
    std::error_code error;
    if (const auto shipped = defaultVocabularyFile(); std::filesystem::exists(shipped, error)) read(shipped);
    if (!named.empty()) read(named);
    reader.checkTogether();
    files.mistakes = reader.mistakes();
    files.vocabulary = reader.vocabulary();
    return files;
}

QORPtr<const QORVocMap> usableVocabulary(const std::filesystem::path& named, std::vector<QORVocCategoryRule> rules) {
    const QORVocabularyFiles files = readVocabularyFiles(named, std::move(rules));
    for (const QORVocMistake& mistake : files.mistakes) {
        if (mistake.fatal) throw QORException(errFailure, mistake.text(), QOR_SOURCE_PATH, __LINE__);
        logMessage(1, "QORHost", QOR_SOURCE_PATH, __func__, "%s", mistake.text().c_str());
    }
    if (files.read.empty()) {
        logMessage(1, "QORHost", QOR_SOURCE_PATH, __func__, "no vocabulary: %s is missing",
                   defaultVocabularyFile().c_str());
    }
    return files.vocabulary;
}

}  // namespace QOR
