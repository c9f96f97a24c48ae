/// \file
/// A vocabulary for the length of a test.
#pragma once

#include <stdexcept>
#include <string_view>

#include "QORLibLocal/QORVocabulary.h"

namespace QOR::test {

/// The process's vocabulary is the given text for as long as the object lives. Entries that the reader complains of
/// are allowed; a text that cannot be used is not.
class ScopedVocabulary {
public:
    explicit ScopedVocabulary(std::string_view xml) : m_before(vocCacheLocal()->getVocabulary()) {
        QORVocReader reader;
        if (!reader.readText(xml, "test.xml")) throw std::runtime_error(reader.mistakes().front().reason);
        vocCacheLocal()->setVocabulary(reader.vocabulary());
    }
    ~ScopedVocabulary() { vocCacheLocal()->setVocabulary(m_before); }
    ScopedVocabulary(const ScopedVocabulary&) = delete;
    ScopedVocabulary& operator=(const ScopedVocabulary&) = delete;

private:
    QORPtr<const QORVocMap> m_before;
};

}  // namespace QOR::test
