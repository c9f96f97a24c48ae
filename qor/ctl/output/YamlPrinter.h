/// \file
/// Rows as YAML.
#pragma once

#include <string>
#include <vector>

#include "output/RowPrinter.h"

namespace QOR {

/// A list of mappings in block style, of YAML 1.2; whoever reads YAML 1.1 reads the same.
class YamlPrinter final : public RowSink {
public:
    YamlPrinter(const RowPrinterOptions& options, Output& out) : m_kinds(options.kinds), m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    void appendValue(const Cell& cell, QORColumnKind kind, std::string& out) const;

    ColumnKinds m_kinds;
    Output& m_out;
    std::vector<std::string> m_keys;  ///< `name: ` of each column
    std::vector<QORColumnKind> m_kindOf;
    bool m_any = false;
};

}  // namespace QOR
