/// \file
/// Authorities and certificates in a folder of a test. Whoever includes it links OpenSSL::Crypto.
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "support/TemporaryDirectory.h"

namespace QOR::test {

/// NAME.crt and NAME.key, in PEM. Fails by exception.
class TestCertificates {
public:
    /// Seconds from now.
    struct Time {
        long begin = -3600;
        long end = 86400;
    };

    /// With the authorities "authority" and "other", and "server" of the first, for localhost and 127.0.0.1.
    TestCertificates() {
        makeAuthority("authority");
        makeAuthority("other");
        issue("server", "authority", "DNS:localhost,IP:127.0.0.1");
    }

    std::string certificate(const std::string& name) const { return path(name + ".crt"); }
    std::string key(const std::string& name) const { return path(name + ".key"); }
    std::string path(const std::string& name) const { return (m_folder / name).string(); }

    void makeAuthority(const std::string& name) const { make(name, name, "", {}); }
    /// \param hosts as "DNS:localhost,IP:127.0.0.1"; empty: it is a client's
    void issue(const std::string& name, const std::string& authority, const std::string& hosts, Time time) const {
        make(name, authority, hosts, time);
    }
    void issue(const std::string& name, const std::string& authority, const std::string& hosts) const {
        issue(name, authority, hosts, Time{});
    }

private:
    using Key = std::unique_ptr<EVP_PKEY, decltype(&::EVP_PKEY_free)>;
    using Certificate = std::unique_ptr<X509, decltype(&::X509_free)>;
    using File = std::unique_ptr<std::FILE, decltype(&std::fclose)>;

    static void need(bool done) {
        if (!done) throw std::runtime_error("cannot make a certificate");
    }

    void make(const std::string& name, const std::string& authority, const std::string& hosts, Time time) const {
        static long serial = 1;
        const bool own = name == authority;
        const Key key(::EVP_EC_gen("P-256"), ::EVP_PKEY_free);
        const Certificate certificate(::X509_new(), ::X509_free);
        X509* const made = certificate.get();
        const Certificate issuer = own ? Certificate(nullptr, ::X509_free) : readCertificate(authority);
        const Key issuerKey = own ? Key(nullptr, ::EVP_PKEY_free) : readKey(authority);
        need(key && ::X509_set_version(made, 2) == 1 &&
             ::ASN1_INTEGER_set(::X509_get_serialNumber(made), ++serial) == 1);
        ::X509_gmtime_adj(::X509_getm_notBefore(made), time.begin);
        ::X509_gmtime_adj(::X509_getm_notAfter(made), time.end);
        need(::X509_set_pubkey(made, key.get()) == 1 &&
             ::X509_NAME_add_entry_by_txt(::X509_get_subject_name(made), "CN", MBSTRING_UTF8,
                                          reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0) == 1 &&
             ::X509_set_issuer_name(made, ::X509_get_subject_name(own ? made : issuer.get())) == 1);
        extend(made, own ? made : issuer.get(), NID_basic_constraints, own ? "critical,CA:TRUE" : "CA:FALSE");
        extend(made, own ? made : issuer.get(), NID_subject_key_identifier, "hash");
        if (!hosts.empty()) extend(made, made, NID_subject_alt_name, hosts);
        need(::X509_sign(made, own ? key.get() : issuerKey.get(), ::EVP_sha256()) > 0);
        const File keyFile = open(this->key(name), "w");
        const File file = open(this->certificate(name), "w");
        need(::PEM_write_PrivateKey(keyFile.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1 &&
             ::PEM_write_X509(file.get(), made) == 1);
    }

    static void extend(X509* certificate, X509* issuer, int kind, const std::string& value) {
        X509V3_CTX context;
        X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
        X509_EXTENSION* const extension = ::X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
        need(extension != nullptr && ::X509_add_ext(certificate, extension, -1) == 1);
        ::X509_EXTENSION_free(extension);
    }

    static File open(const std::string& path, const char* mode) {
        File file(std::fopen(path.c_str(), mode), std::fclose);
        need(file != nullptr);
        return file;
    }
    Certificate readCertificate(const std::string& name) const {
        return {::PEM_read_X509(open(certificate(name), "r").get(), nullptr, nullptr, nullptr), ::X509_free};
    }
    Key readKey(const std::string& name) const {
        return {::PEM_read_PrivateKey(open(key(name), "r").get(), nullptr, nullptr, nullptr), ::EVP_PKEY_free};
    }

    TemporaryDirectory m_folder;
};

}  // namespace QOR::test
