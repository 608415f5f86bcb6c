// Keys of every kind the library meets, generated at run time.
#pragma once

#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

namespace testsupport {

enum class KeyKind {
    RSA512,
    RSA1023,
    RSA1024,
    RSA2048,
    RSAPSS,
    P256,
    P384,
    P521,
    Secp256k1,
    Ed25519,
    Ed448,
    X25519,
    DSA,
};

const char* keyKindName(KeyKind kind);

// A new key of the kind.
foundation::certificates::EVP_PKEYUPtr generateKey(KeyKind kind);

// One key per kind for the whole process, generated on first use; shared because RSA and DSA
// generation dominate test time. Never modify it.
EVP_PKEY* sharedKey(KeyKind kind);

// Sets the library's process-wide key acceptance for a scope and restores the previous one.
class ScopedKeyAcceptance {
  public:
    explicit ScopedKeyAcceptance(foundation::certificates::KeyAcceptance acceptance);
    ~ScopedKeyAcceptance();
    ScopedKeyAcceptance(const ScopedKeyAcceptance&) = delete;
    ScopedKeyAcceptance& operator=(const ScopedKeyAcceptance&) = delete;

  private:
    foundation::certificates::KeyAcceptance previous;
};

}  // namespace testsupport
