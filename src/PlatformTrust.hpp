// The platform's trusted certificates as verification uses them when a caller's trust store is
// empty.
#pragma once

#include <openssl/x509_vfy.h>

#include <memory>

namespace foundation::certificates {
class TrustStore;
}

namespace foundation::certificates::detail {

// A read-only store holding what a default TrustStore holds after
// addSystemCertificates(Signing, false) and then addSystemCertificates(SSL, false).
//
// Parsing the trust sources costs far more than a verification, so the store is built once and
// reused while nothing could make a fresh build differ: the sources are read again at each call
// (they follow the environment) and must hold exactly the same text, and no certificate kept
// may have expired since. The log records written while building are written again at
// every reuse. Never change the returned store: copy it (copyStoreObjects) to add to it.
std::shared_ptr<X509_STORE> platformVerificationStore();

// The certificates a verification trusts, read-only: the trust store's (its verification
// snapshot), or the platform's when it is empty. Never change the returned store: copy it
// (copyStoreObjects) to add to it. Throws TrustStoreException.
std::shared_ptr<X509_STORE> trustedVerificationStore(const TrustStore& trustStore);

}  // namespace foundation::certificates::detail
