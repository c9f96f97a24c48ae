/// \file
/// What commands share about their output.
#pragma once

#include <memory>
#include <string_view>

#include "commands/Commands.h"

namespace QOR {

/// A printer onto standard output's buffer, fitted to the terminal where there is one.
std::unique_ptr<QORRowSink> makePrinter(const QORPrintOptions& print, bool counts, QOROutput& out);

/// Remembers the counts for a form that has no place for them.
class QORCountKeeper final : public QORRowSink {
public:
    explicit QORCountKeeper(QORRowSink& next) : m_next(next) {}
    void begin(std::span<const std::string> names) override { m_next.begin(names); }
    void row(std::span<const QORCell> cells) override { m_next.row(cells); }
    void end(const std::optional<QORRowCounts>& given) override {
        counts = given;
        m_next.end(given);
    }
    std::optional<QORRowCounts> counts;

private:
    QORRowSink& m_next;
};

/// Tells a client that stands for no environment so: its answers lack rows, and nothing else would say why.
/// \param client what --client says; empty: oneself
void tellOfNoEnvironment(QORBackend& backend, const std::vector<std::string>& client);

/// A line to standard error, behind "qorctl: ".
void tellPerson(std::string_view text);

}  // namespace QOR
