/// \file
/// Rows as JSON objects.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "output/RowPrinter.h"

namespace QOR {

/// Appends a JSON string, or {"base64":"..."} for bytes that are not UTF-8.
void appendJsonText(std::string_view text, std::string& out);

/// Appends a value: null, a number where the column holds such and the text is one that JSON has, or else a text.
void appendJsonValue(const Cell& cell, QORColumnKind kind, std::string& out);

/// Writes rows as JSON objects.
class JsonObjects {
public:
    void begin(std::span<const std::string> names, const ColumnKinds& kinds);
    void append(std::span<const Cell> cells, std::string& out) const;

private:
    std::vector<std::string> m_members;  ///< `"name":` of each column
    std::vector<QORColumnKind> m_kinds;
};

class JsonPrinter final : public RowSink {
public:
    JsonPrinter(const RowPrinterOptions& options, Output& out)
        : m_withCounts(options.counts), m_kinds(options.kinds), m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    bool m_withCounts;
    ColumnKinds m_kinds;
    bool m_any = false;
    Output& m_out;
    JsonObjects m_objects;
};

/// An object a line.
class NdjsonPrinter final : public RowSink {
public:
    NdjsonPrinter(const RowPrinterOptions& options, Output& out) : m_kinds(options.kinds), m_out(out) {}
    void begin(std::span<const std::string> names) override { m_objects.begin(names, m_kinds); }
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>&) override {}

private:
    ColumnKinds m_kinds;
    Output& m_out;
    JsonObjects m_objects;
};

}  // namespace QOR
