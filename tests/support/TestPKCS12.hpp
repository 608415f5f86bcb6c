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

// Iteration counts of a Default container, each 0 for OpenSSL's default. Setting any lays the
// container out by hand: certificates in an encrypted part, the shrouded key in a plain part or,
// with keyInEncryptedPart, in the encrypted part, where it shows only after decryption.
// Legacy containers take only the MAC count; their other counts stay 2048.
struct PKCS12Iterations {
    int mac = 0;
    int encryptedPart = 0;
    int key = 0;
    bool keyInEncryptedPart = false;
};

// Aggregate order lets a test write {key, certificate, {chain}}.
struct PKCS12Recipe {
    EVP_PKEY* key = nullptr;      // none: a container without a key
    X509* certificate = nullptr;  // none: no certificate for the key
    std::vector<X509*> caChain{};
    std::string passphrase = kPKCS12Passphrase;
    PKCS12Algorithms algorithms = PKCS12Algorithms::Default;
    bool mac = true;
    PKCS12Iterations iterations{};
};

// The container's DER encoding.
foundation::certificates::ByteArray makePKCS12(const PKCS12Recipe& recipe);

foundation::certificates::X509UPtr selfSignedFor(EVP_PKEY* key);

// The container with its MAC iteration count rewritten and the MAC left as it was: a count no
// test could afford to derive while making the container.
foundation::certificates::ByteArray withMACIterations(
    const foundation::certificates::ByteArray& der, long iterations);

}  // namespace testsupport
