#pragma once

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <string>

namespace test {

/// Writes a fresh key and a certificate for `name` (such as "IP:127.0.0.1") that it signs itself.
inline void WriteSelfSigned(const std::string& key_file, const std::string& certificate_file,
                            const std::string& name) {
    constexpr unsigned int kBits = 2048;
    constexpr long kDay = 86400;
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_RSA_gen(kBits),
                                                                  &EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), &X509_free);
    X509_set_version(certificate.get(), 2);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kDay);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kDay);
    X509_set_pubkey(certificate.get(), key.get());
    X509_NAME* subject = X509_get_subject_name(certificate.get());
    const auto* common = reinterpret_cast<const unsigned char*>("test");
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, common, -1, -1, 0);
    X509_set_issuer_name(certificate.get(), subject);
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> names(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, name.c_str()),
        &X509_EXTENSION_free);
    X509_add_ext(certificate.get(), names.get(), -1);
    ASSERT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);

    const std::unique_ptr<std::FILE, decltype(&std::fclose)> out(std::fopen(key_file.c_str(), "w"),
                                                                 &std::fclose);
    ASSERT_EQ(PEM_write_PrivateKey(out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr), 1);
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> public_out(
        std::fopen(certificate_file.c_str(), "w"), &std::fclose);
    ASSERT_EQ(PEM_write_X509(public_out.get(), certificate.get()), 1);
}

}  // namespace test
