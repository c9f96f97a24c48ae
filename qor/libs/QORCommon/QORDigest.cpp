#include "QORCommon/QORDigest.h"

#include <openssl/evp.h>

#include <array>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

void require(int result) {
    if (result != 1) throw QORException(errFailure, "a digest cannot be computed", "qor/libs/QORCommon/QORDigest");
}

}  // namespace

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
    static constexpr char digits[] = "0123456789abcdef";
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned size = 0;
    require(EVP_DigestFinal_ex(m_impl->context.get(), bytes.data(), &size));
    std::string text;
    for (unsigned i = 0; i < size; ++i)
        text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    return text;
}

}  // namespace QOR
