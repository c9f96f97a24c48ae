/// \file
/// Texts made smaller on their way.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace QOR {

/// One text of gzip's form (RFC 1952), made piece by piece. Quick rather than small: who serves the request waits for
/// it. Holds a quarter of a megabyte. Used by one thread at a time.
class HttpGzip {
public:
    /// \throws QORException errFailure when there is no memory for it
    HttpGzip();
    ~HttpGzip();
    HttpGzip(const HttpGzip&) = delete;
    HttpGzip& operator=(const HttpGzip&) = delete;

    /// What a reader needs to have all that was added so far: he does not wait for what comes later.
    std::string add(std::string_view text);
    /// Takes a piece without regard to readers. \returns what there is of the whole so far and has not been returned
    std::string put(std::string_view text);
    /// The end of it, behind a last piece. Nothing may be added any more.
    std::string finish(std::string_view text = {});

private:
    struct Impl;
    std::string run(std::string_view text, int flush);

    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
