/// \file
/// What definitions of domains, snapshots and checkpoints say.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ingest/QORRecords.h"

namespace QOR {

/// As a configuration has it. Texts are such as people can read, whatever bytes they had.
struct LibvirtDefinition {
    std::string title;  ///< the name, where it has none
    QORConfigRecord config;
};

/// \param lent addresses that it has beside those that it says itself
/// \param baseSnapshot the backup that it goes on from; empty for none
/// \returns nothing for what is no definition of a domain
std::optional<LibvirtDefinition> readLibvirtDefinition(const std::string& xml, const std::vector<std::string>& lent,
                                                       const std::string& baseSnapshot);

/// A snapshot or checkpoint.
struct LibvirtSavingDefinition {
    std::int64_t time = 0;  ///< when it was made
    std::string description;
    std::string parent;  ///< the name of the one that it was made after
    std::string state;   ///< of the domain then
    std::string memory;  ///< where its memory is: "internal", "external"; empty, or "no": it was not saved
};
/// \returns nothing for what is none, or does not say when it was made
std::optional<LibvirtSavingDefinition> readLibvirtSaving(const std::string& xml);

/// A text in whatever bytes as one that a column takes: UTF-8, and not longer than people read.
std::string libvirtText(const std::string& text);

}  // namespace QOR
