/// \file
/// The digest of bytes, by which two texts are told apart that are too large to be compared, or lie in two places; and
/// what else secrets are made of.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// HMAC-SHA256 (RFC 2104), 32 bytes: who has the key knows a text again that somebody else brings back.
/// \throws QORException errFailure where the system's library has no digests
QOR_API std::string keyedDigest(std::string_view key, std::string_view text);
/// Whether they are the same, in a time that tells nothing of where they differ.
QOR_API bool isSameDigest(std::string_view a, std::string_view b) noexcept;
/// So many bytes that nobody can guess. \throws QORException errFailure where the system has none
QOR_API std::string randomBytes(std::size_t count);
/// Two hexadecimal digits a byte, in lower case.
QOR_API std::string hexOf(std::string_view bytes);

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
