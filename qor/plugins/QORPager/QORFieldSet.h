/// \file
/// All fields that a "pager" request may name: built in, declared in the configuration, or made on demand from a name.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "QORFunctionality/QORAccess.h"
#include "QORPager/QORCaches.h"
#include "QORPager/QORField.h"

namespace QOR {

class TExpressionEvaluation;

/// What names under a prefix stand for.
struct InfoPrefixDescription {
    TCursorType cursorType;
    std::string cacheName;
};

/// Orders fields by name, and finds them by it.
struct QORFieldNameLess {
    using is_transparent = void;
    bool operator()(const QORField& a, const QORField& b) const noexcept { return a < b; }
    bool operator()(const QORField& a, std::string_view b) const noexcept { return a.name < b; }
    bool operator()(std::string_view a, const QORField& b) const noexcept { return a < b.name; }
};

/// The catalogue of one operator. Fields stay where they are until init() or takeDemanded(), so requests refer to them
/// by address. Used by one thread at a time.
class QORFieldSet {
public:
    using Fields = std::set<QORField, QORFieldNameLess>;
    using Position = Fields::const_iterator;

    QORFieldSet();
    ~QORFieldSet();
    QORFieldSet(const QORFieldSet&) = delete;
    QORFieldSet& operator=(const QORFieldSet&) = delete;

    /// Fills the set anew: the built-in fields, then those of the configuration. Whatever was there before goes, the
    /// fields made on demand too, so no field keeps an earlier provider; prefixes stay.
    /// \param accessProvider for the getters that need the host to resolve something; may be null
    void init(QORPtr<QORAccessProviderPrototype> accessProvider);

    /// Adds the fields of the host's vocabulary. An entry without a name or a path is skipped, and a name that is
    /// there already keeps its field.
    void readFieldsFromVoc();

    /// Makes names that begin with the prefix fields on demand; replaces what the prefix stood for before. \returns 0
    int registerPrefix(std::string prefix, TCursorType cursorType, std::string cacheName);

    /// Registers the prefixes that are there whatever the configuration says.
    void registerPrefixes();
    /// Registers the prefixes of caches, by their identifiers; a cache without one has none.
    void registerCaches(const CacheInfoMap& caches);

    /// The field of exactly that name, case and all; end() when there is none.
    Position find(std::string_view name) const { return m_fields.find(name); }
    /// Makes the field that the name stands for by the first prefix, in byte order, that it begins with; the one
    /// there is already, should there be one. \returns end() when it begins with none
    Position checkPrefix(std::string_view name);
    /// Whether the name begins with a prefix.
    bool hasPrefix(std::string_view name) const { return findPrefix(name) != m_prefixes.end(); }
    /// Registers the parameter at `path` of the row's info document. A name that is there already keeps its field.
    Position addInfoField(std::string name, TCursorType cursorType, std::string path, std::string cacheName);

    /// Declares every field to a filter, those of environments as special.
    void declareIn(TExpressionEvaluation& filter) const;

    using Prefixes = std::map<std::string, InfoPrefixDescription, std::less<>>;
    const Prefixes& prefixes() const noexcept { return m_prefixes; }

    /// In the order of the names.
    Position begin() const noexcept { return m_fields.begin(); }
    Position end() const noexcept { return m_fields.end(); }
    std::size_t size() const noexcept { return m_fields.size(); }

    /// Fields made on demand that are in the set, and the bytes of their names.
    std::size_t demandedCount() const noexcept { return m_demanded.size(); }
    std::size_t demandedBytes() const noexcept { return m_demandedBytes; }
    /// Takes the fields made on demand out of the set. \returns their names, for which checkPrefix() makes them again
    std::vector<std::string> takeDemanded();

private:
    Prefixes::const_iterator findPrefix(std::string_view name) const;
    void addBuiltIns();

    Fields m_fields;
    QORPtr<QORAccessProviderPrototype> m_accessProvider;
    Prefixes m_prefixes;
    std::vector<Position> m_demanded;
    std::size_t m_demandedBytes = 0;
};

}  // namespace QOR
