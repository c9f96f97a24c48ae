#include "QORCommon/QORDigest.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <sys/random.h>

#include <array>
#include <cerrno>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORUnsignedBytes.h"

namespace QOR {
namespace {

void requireDigest(int result) {
    if (result != 1) throw QORException(errFailure, "a digest cannot be computed", QOR_SOURCE_PATH);
}

/// Looked up once: by its usual name the library looks it up anew for each text, for longer than a short one takes.
const EVP_MD* sha256() {
    static const EVP_MD* const found = ::EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
    return found != nullptr ? found : ::EVP_sha256();
}

/// Of HMAC-SHA256 without a key; null where the library has none.
EVP_MAC_CTX* makeUnkeyed() {
    EVP_MAC* const mac = ::EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    EVP_MAC_CTX* const made = ::EVP_MAC_CTX_new(mac);
    ::EVP_MAC_free(mac);
    std::string digest("SHA2-256");
    const std::array<OSSL_PARAM, 2> parameters{
        ::OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest.data(), digest.size()),
        ::OSSL_PARAM_construct_end()};
    if (made == nullptr || ::EVP_MAC_CTX_set_params(made, parameters.data()) == 1) return made;
    ::EVP_MAC_CTX_free(made);
    return nullptr;
}

}  // namespace

std::string keyedDigest(std::string_view key, std::string_view text) {
    // Made once, for the same reason: of what a short text takes, most would be the making.
    thread_local const std::unique_ptr<EVP_MAC_CTX, decltype(&EVP_MAC_CTX_free)> context(makeUnkeyed(),
                                                                                         &EVP_MAC_CTX_free);
    requireDigest(context ? ::EVP_MAC_init(context.get(), bytesOf(key), key.size(), nullptr) : 0);
    requireDigest(::EVP_MAC_update(context.get(), bytesOf(text), text.size()));
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    std::size_t size = 0;
    requireDigest(::EVP_MAC_final(context.get(), digest.data(), &size, digest.size()));
    return {reinterpret_cast<const char*>(digest.data()), size};
}

bool isSameDigest(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && ::CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

// The system's own: for the few bytes of a salt, the library's take ten times as long.
std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    for (std::size_t done = 0; done < count;) {
        const ssize_t got = ::getrandom(bytes.data() + done, count - done, 0);
        if (got < 0 && errno != EINTR)
            throw QORException(errFailure, "the system has no random bytes", QOR_SOURCE_PATH);
        if (got > 0) done += static_cast<std::size_t>(got);
    }
    return bytes;
}

std::string hexOf(std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

struct QORDigest::Impl {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
};

QORDigest::QORDigest() : m_impl(std::make_unique<Impl>()) {
    requireDigest(m_impl->context ? EVP_DigestInit_ex(m_impl->context.get(), sha256(), nullptr) : 0);
}

QORDigest::~QORDigest() = default;

QORDigest& QORDigest::add(std::string_view bytes) {
    requireDigest(EVP_DigestUpdate(m_impl->context.get(), bytes.data(), bytes.size()));
    return *this;
}

std::string QORDigest::hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    requireDigest(EVP_DigestFinal_ex(m_impl->context.get(), bytes.data(), &size));
    return hexOf({reinterpret_cast<const char*>(bytes.data()), size});
}

}  // namespace QOR
