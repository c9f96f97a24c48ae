/// \file
/// The configuration vocabulary: what the people who run a host tell its plug-ins, as categories of parameters.
///
/// A vocabulary file is XML:
///
///     <vocabulary>
///       <category name="colours">
///         <parameter id="sky" multi="">
///           <source>env/title</source>
///           <type>string</type>
///         </parameter>
///       </category>
///     </vocabulary>
///
/// A parameter's values are its elements; those that have a number in the tag dictionary can be asked for by it. Its
/// marks are attributes, which count by being there, whatever they say. What categories there are, and what they may
/// hold, is told by those who read them (QORVocabularyRules.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORLibLocal/QORVocabularyRules.h"
#include "QORMessage/QORTags.h"

namespace QOR {

class QORVocMap;

/// One parameter of a category.
struct QORVocParameter {
    std::string id;  ///< empty when it bears none
    std::vector<std::pair<std::string, std::string>> values;
    std::vector<std::string> marks;
    std::string file;  ///< where it was read
    std::size_t line = 0;
};

/// Goes through the parameters of one category, in their order. Operations return 0 on success and non-zero otherwise.
/// Must not outlive its vocabulary.
class QOR_API QORVocIterator {
public:
    QORVocIterator() = default;

    /// To the first parameter; fails when there is none.
    int firstParameter() noexcept;
    int nextParameter() noexcept;

    /// The identifier of the parameter; fails when it has none.
    int getID(std::string& out) const;
    /// A value by the number of its name. Fails, with `out` unchanged, when the parameter has no such value.
    int getValue(std::string& out, QORTag id) const;
    /// A value by its name.
    int getString(std::string_view key, std::string& out) const;
    /// The same as a number; fails for a text that is none.
    int getInt(std::string_view key, int& out) const;
    bool hasAttribute(std::string_view name) const;

private:
    friend class QORVocMap;
    const QORVocParameter* current() const noexcept;

    const std::vector<QORVocParameter>* m_parameters = nullptr;
    std::size_t m_at = 0;
};

/// A vocabulary: categories by name. Immutable once it is published.
class QOR_API QORVocMap final : public QORReferenceCounter {
public:
    using Category = std::vector<QORVocParameter>;

    QORVocMap() = default;
    // g++ warns of a copy that does not name its base.
    // NOLINTNEXTLINE(readability-redundant-member-init)
    QORVocMap(const QORVocMap& other) : QORReferenceCounter(), m_categories(other.m_categories) {}
    ~QORVocMap() override;

    /// Fails when there is no such category.
    int readCategory(std::string_view name, QORVocIterator& out) const;
    const std::map<std::string, Category, std::less<>>& categories() const noexcept { return m_categories; }
    Category& category(const std::string& name) { return m_categories[name]; }

private:
    std::map<std::string, Category, std::less<>> m_categories;
};

/// Something wrong in a vocabulary file.
struct QORVocMistake {
    std::string file;
    std::size_t line = 0;  ///< from 1; 0 when the file as a whole is meant
    std::string reason;
    bool fatal = false;  ///< the file cannot be used; otherwise what is wrong is passed over

    /// "file:line: reason"
    QOR_API std::string text() const;
};

/// Reads vocabulary files, one on top of the other: a parameter replaces the one that an earlier file has in the same
/// category under the same identifier, others come behind.
class QOR_API QORVocReader {
public:
    /// \param rules of those who are going to read the vocabulary, in use until the reader goes. Without any, what
    /// categories hold is taken as it is
    explicit QORVocReader(std::vector<QORVocCategoryRule> rules = {});
    ~QORVocReader();
    QORVocReader(const QORVocReader&) = delete;
    QORVocReader& operator=(const QORVocReader&) = delete;

    /// What a file may hold. A larger one is none that somebody has written; it is refused.
    static constexpr std::size_t maxBytes = std::size_t{16} << 20;
    /// What one parameter may hold; further values are passed over.
    static constexpr std::size_t maxValues = 64;

    /// Takes time in proportion to the file's size.
    /// \returns false when the file cannot be used at all; nothing of it has been taken then
    bool readFile(const std::filesystem::path& file);
    /// The same for a text. \param file what to call it in mistakes
    bool readText(std::string_view xml, const std::string& file);

    /// Looks for what is wrong only when all files are taken together. After the last file.
    void checkTogether();

    const std::vector<QORVocMistake>& mistakes() const noexcept { return m_mistakes; }
    /// What has been read.
    QORPtr<const QORVocMap> vocabulary() const;
    /// Lines and identifiers that have been looked at in order to find others: grows no faster than what was read.
    std::uint64_t steps() const noexcept { return m_steps; }

private:
    const QORVocMap::Category& parametersOf(std::string_view category) const;
    void checkReferences(const QORVocCategoryRule& category, const QORVocValueRule& value);
    void checkUnique(const QORVocCategoryRule& category, const QORVocValueRule& value);

    std::vector<QORVocCategoryRule> m_rules;
    QORPtr<QORVocMap> m_vocabulary;
    std::uint64_t m_steps = 0;
    std::vector<QORVocMistake> m_mistakes;
};

/// Where this process keeps its vocabulary. Thread-safe.
class QOR_API QORVocCacheLocal {
public:
    /// Never null; empty before a host has set one.
    QORPtr<const QORVocMap> getVocabulary() const;
    void setVocabulary(QORPtr<const QORVocMap> vocabulary);

private:
    mutable std::mutex m_mutex;
    QORPtr<const QORVocMap> m_vocabulary;  // guarded by m_mutex
};

/// Never null.
QOR_API QORVocCacheLocal* vocCacheLocal() noexcept;

}  // namespace QOR
