#include "QORCommon/QORDigest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <array>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

constexpr const char* sourcePath = "qor/libs/QORCommon/QORDigest";

void require(int result) {
    if (result != 1) throw QORException(errFailure, "a digest cannot be computed", sourcePath);
}

const unsigned char* bytesOf(std::string_view text) noexcept {
    return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::string keyedDigest(std::string_view key, std::string_view text) {
    std::string result(EVP_MAX_MD_SIZE, '\0');
    unsigned size = 0;
    require(::HMAC(::EVP_sha256(), key.data(), static_cast<int>(key.size()), bytesOf(text), text.size(),
                   reinterpret_cast<unsigned char*>(result.data()), &size) != nullptr
                ? 1
                : 0);
    result.resize(size);
    return result;
}

bool isSameDigest(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && ::CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string randomBytes(std::size_t count) {
    std::string bytes(count, '\0');
    if (::RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1)
        throw QORException(errFailure, "the system has no random bytes", sourcePath);
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
    require(m_impl->context ? EVP_DigestInit_ex(m_impl->context.get(), EVP_sha256(), nullptr) : 0);
}

QORDigest::~QORDigest() = default;

QORDigest& QORDigest::add(std::string_view bytes) {
    require(EVP_DigestUpdate(m_impl->context.get(), bytes.data(), bytes.size()));
    return *this;
}

std::string QORDigest::hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    require(EVP_DigestFinal_ex(m_impl->context.get(), bytes.data(), &size));
    return hexOf({reinterpret_cast<const char*>(bytes.data()), size});
}

}  // namespace QOR
