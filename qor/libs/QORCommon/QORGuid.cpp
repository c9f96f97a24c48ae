#include "QORCommon/QORGuid.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

constexpr std::size_t textLength = 36;

bool isHyphenPlace(std::size_t at) {
    return at == 8 || at == 13 || at == 18 || at == 23;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void markVersion(std::array<std::uint8_t, 16>& bytes, unsigned version) {
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | version << 4);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);
}

}  // namespace

std::optional<QORGUIDBase> QORGUIDBase::parse(std::string_view text) noexcept {
    if (text.size() == textLength + 2 && text.front() == '{' && text.back() == '}') text = text.substr(1, textLength);
    if (text.size() != textLength) return std::nullopt;
    QORGUIDBase guid;
    std::size_t byte = 0;
    for (std::size_t at = 0; at < textLength;) {
        if (isHyphenPlace(at)) {
            if (text[at++] != '-') return std::nullopt;
            continue;
        }
        const int high = hexValue(text[at]);
        const int low = hexValue(text[at + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        guid.m_bytes[byte++] = static_cast<std::uint8_t>(high << 4 | low);
        at += 2;
    }
    return guid;
}

QORGUIDBase QORGUIDBase::random() {
    QORGUIDBase guid;
    if (getentropy(guid.m_bytes.data(), guid.m_bytes.size()) != 0) {
        throw QORException(errFailure, "cannot get random bytes: " + std::generic_category().message(errno));
    }
    markVersion(guid.m_bytes, 4);
    return guid;
}

QORGUIDBase QORGUIDBase::fromName(const QORGUIDBase& space, std::string_view name) {
    std::string text(reinterpret_cast<const char*>(space.m_bytes.data()), space.m_bytes.size());
    text += name;
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    if (EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha1(), nullptr) != 1) {
        throw QORException(errFailure, "cannot compute the digest of a name");
    }
    QORGUIDBase guid;
    std::copy_n(digest.begin(), guid.m_bytes.size(), guid.m_bytes.begin());
    markVersion(guid.m_bytes, 5);
    return guid;
}

bool QORGUIDBase::fromString(std::string_view text) noexcept {
    const auto guid = parse(text);
    *this = guid.value_or(QORGUIDBase());
    return guid.has_value();
}

std::string QORGUIDBase::toString() const {
    std::string text(textLength, '\0');
    write(text.data());
    return text;
}

void QORGUIDBase::write(char* out) const noexcept {
    constexpr std::string_view digits = "0123456789abcdef";
    std::size_t at = 0;
    for (const std::uint8_t byte : m_bytes) {
        if (isHyphenPlace(at)) out[at++] = '-';
        out[at++] = digits[byte >> 4];
        out[at++] = digits[byte & 15U];
    }
}

}  // namespace QOR
