/// \file
/// The command `qorctl filter`.
#pragma once

namespace CLI {
class App;
}

namespace QOR {

/// Adds the command to the application. When it is given, its exit code is left in `exitCode`, which must live as long
/// as the application: 0 done, 1 the filter cannot be parsed or a line was invalid, 2 bad usage.
void addFilterCommand(CLI::App& app, int& exitCode);

}  // namespace QOR
