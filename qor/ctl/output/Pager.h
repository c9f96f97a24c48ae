/// \file
/// A program that shows long output page by page.
#pragma once

#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "output/Output.h"

namespace QOR {

/// The command that shows pages: QOR_PAGER, or else PAGER, or else less where there is one. Nothing where one of these
/// is empty or "cat", or cannot be run, which is told, and where standard input or output is no terminal.
std::optional<std::string> pagerCommand();

/// Whether one has ended as programs do that fail: what was written may not have been seen.
bool hasPagerFailed() noexcept;

/// Standard output goes through a pager as long as it lives. Ctrl-C ends the program when the person has left the pager
/// too. One at a time; no other thread writes to standard output.
class Pager {
public:
    /// Where it cannot be started, output goes to the terminal as ever.
    explicit Pager(const std::string& command);
    /// Waits until the person has seen enough.
    ~Pager();
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;

private:
    bool m_runs = false;
};

/// Onto standard output, through a pager from the first block on where there is one.
class PagedOutput final : public Output {
public:
    /// \param command of the pager; absent: none
    explicit PagedOutput(std::optional<std::string> command) : m_command(std::move(command)) {}

protected:
    void write(std::string_view block) override;

private:
    std::optional<std::string> m_command;
    std::optional<Pager> m_pager;
    FileOutput m_file{STDOUT_FILENO};
};

}  // namespace QOR
