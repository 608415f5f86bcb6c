// PKCS#12 containers made at run time with PKCS12_create.
#pragma once

#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/Types.hpp>

#include <string>
#include <vector>

namespace testsupport {

constexpr const char* kPKCS12Passphrase = "correct horse battery staple";

// Default: OpenSSL 3.0's AES-256-CBC, PBKDF2 and SHA-256 MAC. Legacy: 40-bit RC2 certificates,
// 3DES key and SHA-1 MAC, which need the legacy provider.
enum class PKCS12Algorithms { Default, Legacy };

// Aggregate order lets a test write {key, certificate, {chain}}.
struct PKCS12Recipe {
    EVP_PKEY* key = nullptr;      // none: a container without a key
    X509* certificate = nullptr;  // none: no certificate for the key
    std::vector<X509*> caChain{};
    std::string passphrase = kPKCS12Passphrase;
    PKCS12Algorithms algorithms = PKCS12Algorithms::Default;
    bool mac = true;
};

// The container's DER encoding.
foundation::certificates::ByteArray makePKCS12(const PKCS12Recipe& recipe);

foundation::certificates::X509UPtr selfSignedFor(EVP_PKEY* key);

}  // namespace testsupport
