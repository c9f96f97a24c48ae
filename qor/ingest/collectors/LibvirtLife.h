/// \file
/// What a domain's state means, and what has happened where it changed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

struct LibvirtState;

/// The states of an environment that is a domain, as they are stored. Contract: never renumbered.
enum class LibvirtLife : std::int32_t {
    Unknown = 0,
    Gone = 1,  ///< it is defined no more
    Off = 3,
    Saved = 4,  ///< off, with its memory on disk
    Paused = 5,
    Running = 6,
    Crashed = 7,  ///< it is kept as it was then
    Asleep = 8,   ///< by itself
};
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
