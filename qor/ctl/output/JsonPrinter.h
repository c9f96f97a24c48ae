/// \file
/// Rows as JSON objects.
#pragma once

#include <vector>

#include "output/RowPrinter.h"

namespace QOR {

/// Appends a JSON string, or {"base64":"..."} for bytes that are not UTF-8.
void appendJsonText(std::string_view text, std::string& out);

class JsonPrinter final : public RowSink {
public:
    JsonPrinter(bool withCounts, Output& out) : m_withCounts(withCounts), m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    bool m_withCounts;
    bool m_any = false;
    Output& m_out;
    std::vector<std::string> m_members;  ///< `"name":` of each column
};

}  // namespace QOR
