/// \file
/// What commands share about their output.
#pragma once

#include <memory>
#include <string_view>

#include "commands/Commands.h"

namespace QOR {

/// A printer onto standard output's buffer, fitted to the terminal where there is one.
std::unique_ptr<RowSink> makePrinter(const PrintOptions& print, bool counts, Output& out);

/// Remembers the counts for a form that has no place for them.
class CountKeeper final : public RowSink {
public:
    explicit CountKeeper(RowSink& next) : m_next(next) {}
    void begin(std::span<const std::string> names) override { m_next.begin(names); }
    void row(std::span<const Cell> cells) override { m_next.row(cells); }
    void end(const std::optional<RowCounts>& given) override {
        counts = given;
        m_next.end(given);
    }
    std::optional<RowCounts> counts;

private:
    RowSink& m_next;
};

/// Tells a client that stands for no environment so: its answers lack rows, and nothing else would say why.
/// \param client what --client says; empty: oneself
void tellOfNoEnvironment(Backend& backend, const std::vector<std::string>& client);

/// A line to standard error, behind "qorctl: ".
void tellPerson(std::string_view text);

}  // namespace QOR
