/// \file
/// Shows how filters of operator "pager" are read.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

namespace QOR {

/// Reads one JSON object a line and writes one JSON object a line, in order: what the parser, the tree and both
/// evaluations make of a filter over the identifiers given with it, or what the rewriting of dates makes of it
/// (`"kind":"datetime"`). Answers are written out in blocks, at the latest when no further line is waiting.
///
/// A line that is no question is answered with `{"id":...,"invalid":"reason"}`; the others are not affected.
/// \returns an exit code: 0, or 1 when a line was invalid
int runFilterLines(std::istream& in, std::ostream& out);

class FilterNames;

/// Describes one filter to a person: its tree, the fields it uses, and the constants that each data source can take
/// from it. Dates beside the time fields are rewritten first, as a request would do it.
/// \param names that the filter may hold
/// \returns an exit code: 0, or 1 when the filter cannot be parsed; then `err` says why and where
int runFilterPerson(std::string_view text, const FilterNames& names, std::ostream& out, std::ostream& err);

/// Why and where a filter cannot be read, as lines; empty for one that can.
std::string explainFilter(std::string_view text, const FilterNames& names);

}  // namespace QOR
