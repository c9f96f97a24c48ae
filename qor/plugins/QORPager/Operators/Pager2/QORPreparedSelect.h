/// \file
/// Selects of "pager2" that were read once, for requests that ask the same again.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "QORMessage/QORBinaryIterator.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"

namespace QOR {

/// The statement of one request: the one that an earlier request with the same text left, or a new one. Requests are
/// the same that differ in nothing but the page token and the moment; what depends on the client is made anew. Up to
/// `mostKept` are kept in the process, those of the requests that came last. Used by one thread.
class PreparedSelect {
public:
    static constexpr std::size_t mostKept = 64;
    /// Bytes of a request that is worth keeping.
    static constexpr std::size_t largestRequest = 4096;

    /// \param request stands on the select element \throws as SelectStmnt
    explicit PreparedSelect(const QORBinaryIterator& request);
    SelectStmnt* operator->() const noexcept { return m_statement.get(); }

    /// Leaves it for the next request. Of a statement that was executed, without failure; nothing may be asked of it
    /// any more.
    void keep();

    /// How many are kept now. Any thread.
    static std::size_t kept();
    /// Drops what is kept. Only while no request runs.
    static void forgetAll();

private:
    std::string m_request;  ///< all that it is known by again; empty: it is not kept
    std::unique_ptr<SelectStmnt> m_statement;
};

}  // namespace QOR
