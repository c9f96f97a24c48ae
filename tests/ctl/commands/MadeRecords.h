/// \file
/// Records made by a seed, each with what every way out must give for it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "QORLibAgent/QORInfo.h"

namespace QOR::test {

/// A row: columns with their values, nothing for null.
using MadeRow = std::map<std::string, std::optional<std::string>>;

struct MadeRecord {
    std::string view;       ///< where it is seen
    std::string key;        ///< of the record that it replaces; empty for none
    std::string line;       ///< as NDJSON, without a line end
    MadeRow row;            ///< of the view
    std::string title;      ///< the parameter "title" of its document
    bool document = false;  ///< it has one
};

/// Makes records of all kinds: texts that are absent, empty, of 1 byte, growing and shrinking by turns, now and then
/// of 1 MiB; characters of every plane of Unicode, and NUL where it is allowed, which is in documents.
class RecordMaker {
public:
    explicit RecordMaker(unsigned seed) : m_random(seed) {}

    MadeRecord environment(unsigned number);
    MadeRecord operation(unsigned number);
    MadeRecord event(unsigned number);
    MadeRecord backup(unsigned number);

private:
    class Members;

    std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(m_random() % bound); }
    std::size_t size();
    std::string character(bool nul);
    std::string text(bool nul);
    std::optional<std::string> maybeText();
    /// Of a member that is searched by, of the length that is taken.
    std::string indexedText();
    std::string guid();
    std::int64_t time();
    /// \param package with the parameters that have columns
    QORInfo document(Members& json, MadeRecord& record, bool package);
    QORInfo configuration(Members& json, MadeRecord& record, bool columns);

    std::mt19937 m_random;
    unsigned m_texts = 0;
};

}  // namespace QOR::test
