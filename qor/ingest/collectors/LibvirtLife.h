/// \file
/// What a domain's state means, and what has happened where it changed.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ingest/collectors/EnvironmentLife.h"

namespace QOR {

struct LibvirtState;

using LibvirtLife = EnvironmentLife;
/// "running"; "unknown" for a number that none has.
std::string_view libvirtLifeName(LibvirtLife life) noexcept;

/// \param isSaved whether its memory is on disk
LibvirtLife libvirtLife(const LibvirtState& state, bool isSaved) noexcept;
/// The state that it is on its way to; Unknown for none.
LibvirtLife libvirtTransition(const LibvirtState& state) noexcept;
/// It was moved to another machine, which tells of it.
bool hasMovedAway(const LibvirtState& state) noexcept;

/// Something that happened to a domain.
struct LibvirtChange {
    std::string_view op;      ///< "start"
    std::string_view event;   ///< "started"
    std::string_view detail;  ///< why, or how; empty where that is not known
    bool isFailure = false;
    std::optional<LibvirtLife> life{};  ///< what it is from then on; nothing: what it was
};

/// What must have happened from one state to another one that was found later. \param state what it is now; of one that
/// is gone, the state of one that is off, for no reason \param isRestarted its number is another one than before
std::vector<LibvirtChange> libvirtChanges(LibvirtLife before, LibvirtLife now, const LibvirtState& state,
                                          bool isRestarted);

inline constexpr LibvirtChange libvirtDefined{"define", "defined", ""};
inline constexpr LibvirtChange libvirtUndefined{"undefine", "undefined", ""};

}  // namespace QOR
