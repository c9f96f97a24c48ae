/// \file
/// Internal: sums of decimal numbers.
#pragma once

struct sqlite3;

namespace QOR {

/// Gives a connection the aggregates qor_decimal_sum(x) and qor_decimal_average(x), null for no values. Each value
/// counts as the decimal number that it is written as, so that 0.1 and 0.2 come to 0.3 and the order of the rows does
/// not matter, as in engines that keep decimals as such. The sum is a text of digits, with "=" behind them where they
/// are more than a number of floating point holds; the average is such a number.
void addSqliteDecimal(sqlite3& connection) noexcept;

}  // namespace QOR
