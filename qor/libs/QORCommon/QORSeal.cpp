#include "QORCommon/QORSeal.h"

#include <openssl/evp.h>

#include <array>
#include <memory>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORUnsignedBytes.h"

namespace QOR {
namespace {

constexpr std::size_t saltBytes = 16;
constexpr int tagBytes = 16;
/// A key is used once, so that what else would tell its uses apart is the same for all.
constexpr std::array<unsigned char, 12> noNonce{};

void requireSealed(int result) {
    if (result != 1) throw QORException(errFailure, "bytes cannot be sealed", QOR_SOURCE_PATH);
}

unsigned char* writableBytes(std::string& text, std::size_t from) noexcept {
    return reinterpret_cast<unsigned char*>(text.data() + from);
}

/// Looked up once: by its usual name the library looks it up anew for each text.
const EVP_CIPHER* aes() {
    static const EVP_CIPHER* const found = ::EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    return found != nullptr ? found : ::EVP_aes_256_gcm();
}

/// A context of the thread's: what it takes to make one is more than what a short text takes.
EVP_CIPHER_CTX* threadContext() {
    thread_local const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context{::EVP_CIPHER_CTX_new(),
                                                                                               &EVP_CIPHER_CTX_free};
    return context.get();
}

/// One text under the key of one salt. One at a time on each thread.
class Cipher {
public:
    Cipher(std::string_view secret, std::string_view salt, bool encrypts) {
        const std::string key = keyedDigest(secret, salt);
        requireSealed(m_context != nullptr ? ::EVP_CipherInit_ex(m_context, aes(), nullptr, bytesOf(key),
                                                                 noNonce.data(), encrypts ? 1 : 0)
                                           : 0);
    }
    /// Writes as many bytes as there are.
    void run(std::string_view bytes, unsigned char* out) {
        int size = 0;
        requireSealed(::EVP_CipherUpdate(m_context, out, &size, bytesOf(bytes), static_cast<int>(bytes.size())));
    }
    bool end() {
        std::array<unsigned char, EVP_MAX_BLOCK_LENGTH> none{};
        int size = 0;
        return ::EVP_CipherFinal_ex(m_context, none.data(), &size) == 1;
    }
    void getTag(unsigned char* out) {
        requireSealed(::EVP_CIPHER_CTX_ctrl(m_context, EVP_CTRL_GCM_GET_TAG, tagBytes, out));
    }
    void setTag(std::string tag) {
        requireSealed(::EVP_CIPHER_CTX_ctrl(m_context, EVP_CTRL_GCM_SET_TAG, tagBytes, tag.data()));
    }

private:
    EVP_CIPHER_CTX* const m_context = threadContext();
};

}  // namespace

std::string sealBytes(std::string_view secret, std::string_view bytes) {
    std::string sealed = randomBytes(saltBytes);
    Cipher cipher(secret, sealed, true);
    sealed.resize(saltBytes + bytes.size() + tagBytes);
    cipher.run(bytes, writableBytes(sealed, saltBytes));
    requireSealed(cipher.end() ? 1 : 0);
    cipher.getTag(writableBytes(sealed, saltBytes + bytes.size()));
    return sealed;
}

std::optional<std::string> openBytes(std::string_view secret, std::string_view sealed) {
    if (sealed.size() < saltBytes + tagBytes) return std::nullopt;
    const std::string_view hidden = sealed.substr(saltBytes, sealed.size() - saltBytes - tagBytes);
    Cipher cipher(secret, sealed.substr(0, saltBytes), false);
    std::string bytes(hidden.size(), '\0');
    cipher.run(hidden, writableBytes(bytes, 0));
    cipher.setTag(std::string(sealed.substr(sealed.size() - tagBytes)));
    if (!cipher.end()) return std::nullopt;
    return bytes;
}

}  // namespace QOR
