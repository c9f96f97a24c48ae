#include "commands/ShortCommands.h"

namespace QOR {
namespace {

constexpr ShortCommand commands[] = {
    {"log", "Operations, the newest first", "vOpLog", "operations", "-time"},
    {"events", "Events, the newest first", "vEventLog", "events", "-time"},
    {"backups", "Backups, the newest first", "vBackupInfo", "backups", "-time"},
    {"envs", "Environments by their host names", "vEnvironment", "environments", "hostname"},
};

}  // namespace

std::span<const ShortCommand> shortCommands() noexcept {
    return commands;
}

}  // namespace QOR
