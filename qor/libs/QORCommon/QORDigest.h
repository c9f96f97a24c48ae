/// \file
/// The digest of bytes, by which two texts are told apart that are too large to be compared, or lie in two places.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// SHA-256, of bytes that come one after the other. Used by one thread at a time.
class QOR_API QORDigest {
public:
    /// \throws QORException errFailure where the system's library has no digests
    QORDigest();
    ~QORDigest();
    QORDigest(const QORDigest&) = delete;
    QORDigest& operator=(const QORDigest&) = delete;

    QORDigest& add(std::string_view bytes);
    /// Of what was added: 64 hexadecimal digits in lower case. Nothing may be added any more.
    std::string hex();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
