/// \file
/// A question before more rows roll over a terminal than anybody reads.
#pragma once

#include <cstdint>

#include "output/Output.h"

namespace QOR {

/// Asks once, when it is known or found out that there are more than a million rows. One thread.
class ManyRows {
public:
    static constexpr std::int64_t most = 1'000'000;

    /// \param asks false: nobody is asked
    explicit ManyRows(bool asks) noexcept : m_asks(asks) {}

    /// Whether it would matter to know how many rows there are.
    bool asks() const noexcept { return m_asks; }
    /// So many are to come, at least. \throws BrokenPipe when the person does not want them
    void expect(std::int64_t rows);
    /// Further ones come. \param out what came before, which is shown before the question \throws as expect()
    void row(Output& out, std::int64_t rows = 1) {
        m_rows += rows;
        if (m_rows > most && m_asks) askAfter(out);
    }
    /// What comes now does not roll by.
    void askNoMore() noexcept { m_asks = false; }

private:
    void askAfter(Output& out);

    bool m_asks;
    std::int64_t m_rows = 0;
};

}  // namespace QOR
