/// \file
/// ASCursor: runs a select and hands out its rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "QORCommon/QORExport.h"
#include "rdbmspp/sql/ASSelect.h"

namespace QOR {

class ASSession;
struct ASDialect;

/// Runs on the session it was made on and must not outlive it. Not shared between threads. Errors: AException.
class QOR_API ASCursor {
public:
    explicit ASCursor(ASSession& session);
    ~ASCursor();
    ASCursor(const ASCursor&) = delete;
    ASCursor& operator=(const ASCursor&) = delete;

    /// What is run; not to be changed from the first Fetch() on.
    ASSelect& Select() noexcept;
    /// Parts of it.
    ASFilter& Filter() noexcept { return Select().Filter(); }
    void Limit(std::int32_t size, std::int32_t offset) { Select().Limit(size, offset); }
    void Order(const ASOrder& order) { Select().Order(order); }

    /// The next row into the data objects of the projection; runs the select at the first call. False at the end.
    /// \throws AException, of ASFailure::Undone where rows were just moved to other places (ASSpread): the transaction
    /// has to be begun anew
    bool Fetch();
    /// Rows fetched so far.
    std::int64_t GetAmount() const noexcept;
    /// The select as SQL text, all values as literals, in the dialect of the session.
    std::string Query() const;

    /// Whether a result may be so long that it is worth reading it as it is fetched (ASAccess::ReadLong).
    /// \param limit rows; 0 or less: no limit \param atOnce the fewest of those that its columns allow
    static bool isLong(std::int32_t limit, std::int32_t atOnce) noexcept { return limit <= 0 || limit > atOnce; }
    /// How many rows with such a column are read at once, whole: few where values may be of any length. Those are bytes
    /// and texts without a declared length, which a typed engine's texts mostly are, however short.
    static std::int32_t rowsAtOnce(const ASData& data, const ASDialect& dialect) noexcept;
    /// The same where nothing of any length is selected.
    static constexpr std::int32_t mostRowsAtOnce = 999;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
