// A revocation list of many entries, written as DER directly: building it through X509_CRL
// would take longer than the benchmarks that load it. Shared by the benchmark programs.
#pragma once

#include <foundation/certificates/Types.hpp>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace bench {

namespace largelist {

using foundation::certificates::ByteArray;

inline void appendLength(ByteArray& out, std::size_t length) {
    if (length < 0x80) {
        out.push_back(static_cast<unsigned char>(length));
        return;
    }
    unsigned char bytes[sizeof(std::size_t)];
    int count = 0;
    for (std::size_t rest = length; rest != 0; rest >>= 8) {
        bytes[count++] = static_cast<unsigned char>(rest & 0xff);
    }
    out.push_back(static_cast<unsigned char>(0x80 | count));
    while (count > 0) out.push_back(bytes[--count]);
}

inline ByteArray element(unsigned char tag, const ByteArray& content) {
    ByteArray out{tag};
    appendLength(out, content.size());
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

inline void append(ByteArray& out, const ByteArray& more) {
    out.insert(out.end(), more.begin(), more.end());
}

inline ByteArray utcTime(const char* text) { return element(0x17, ByteArray(text, text + 13)); }

}  // namespace largelist

// `entries` revoked serial numbers (0x10000000 onwards, each with a revocation date), issued
// and signed (ECDSA P-256, SHA-256) by a key made here.
inline foundation::certificates::ByteArray makeLargeList(std::size_t entries) {
    using namespace largelist;
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
        EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509_NAME, void (*)(X509_NAME*)> issuer(X509_NAME_new(), X509_NAME_free);
    if (!key || !issuer ||
        X509_NAME_add_entry_by_txt(issuer.get(), "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>("Bench Large List"), -1,
                                   -1, 0) != 1) {
        throw std::runtime_error("bench set-up: large list issuer");
    }
    unsigned char* name = nullptr;
    const int nameLength = i2d_X509_NAME(issuer.get(), &name);
    const ByteArray issuerDER(name, name + std::max(nameLength, 0));
    OPENSSL_free(name);

    const ByteArray date = utcTime("240101000000Z");
    ByteArray revoked;
    revoked.reserve(entries * 23);
    for (std::size_t i = 0; i < entries; ++i) {
        const auto serial = static_cast<std::uint32_t>(0x10000000u + i);
        ByteArray entry{0x02,
                        0x04,
                        static_cast<unsigned char>(serial >> 24),
                        static_cast<unsigned char>(serial >> 16),
                        static_cast<unsigned char>(serial >> 8),
                        static_cast<unsigned char>(serial)};
        append(entry, date);
        append(revoked, element(0x30, entry));
    }
    const ByteArray algorithm{0x30, 0x0a, 0x06, 0x08, 0x2a, 0x86,
                              0x48, 0xce, 0x3d, 0x04, 0x03, 0x02};  // ecdsa-with-SHA256
    ByteArray tbs{0x02, 0x01, 0x01};                                // version 2
    append(tbs, algorithm);
    append(tbs, issuerDER);
    append(tbs, utcTime("240101000000Z"));
    append(tbs, utcTime("491231000000Z"));
    append(tbs, element(0x30, revoked));
    revoked = ByteArray();
    const ByteArray signedPart = element(0x30, tbs);

    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    std::size_t signatureLength = 0;
    if (!context ||
        EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), nullptr, &signatureLength, signedPart.data(),
                       signedPart.size()) != 1) {
        throw std::runtime_error("bench set-up: signing the large list");
    }
    ByteArray signature(signatureLength + 1, 0);  // a leading 0: no unused bits
    if (EVP_DigestSign(context.get(), signature.data() + 1, &signatureLength, signedPart.data(),
                       signedPart.size()) != 1) {
        throw std::runtime_error("bench set-up: signing the large list");
    }
    signature.resize(signatureLength + 1);

    ByteArray list = signedPart;
    append(list, algorithm);
    append(list, element(0x03, signature));
    return element(0x30, list);
}

}  // namespace bench
