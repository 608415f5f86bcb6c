// PKCS#12 containers made at run time with PKCS12_create.
#pragma once

#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/Types.hpp>

#include <string>
#include <vector>

namespace testsupport {

constexpr const char* kPKCS12Passphrase = "correct horse battery staple";

enum class PKCS12Algorithms {
    // OpenSSL 3.0's defaults: AES-256-CBC with PBKDF2, SHA-256 MAC.
    Default,
    // 40-bit RC2 for certificates, 3DES for the key, SHA-1 MAC: needs the legacy provider.
    Legacy,
};

const char* algorithmsName(PKCS12Algorithms algorithms);

struct PKCS12Recipe {
    std::string passphrase = kPKCS12Passphrase;
    EVP_PKEY* key = nullptr;      // none: a container without a key
    X509* certificate = nullptr;  // none: no certificate for the key
    std::vector<X509*> caChain;   // further certificates, in this order
    PKCS12Algorithms algorithms = PKCS12Algorithms::Default;
    bool mac = true;  // false: no integrity MAC at all
};

// The container's DER encoding.
foundation::certificates::ByteArray makePKCS12(const PKCS12Recipe& recipe);

// A self-signed certificate for the key, e.g. to pair with it in a container.
foundation::certificates::X509UPtr selfSignedFor(EVP_PKEY* key);

}  // namespace testsupport
