/// \file
/// Internal: triggers of SQLite, switched for one connection by a function of SQL, the only way to it through a driver.
#pragma once

namespace QOR {

/// Gives every connection that this process opens from now on the function. Once, at the start of the process.
void prepareSqliteTriggers();

/// Whether connections have the function.
bool hasSqliteTriggerSwitch() noexcept;

/// Statements that run from here on fire triggers, or do not; of this connection only.
constexpr const char* sqliteTriggersOn = "SELECT qor_triggers(1)";
constexpr const char* sqliteTriggersOff = "SELECT qor_triggers(0)";

}  // namespace QOR
