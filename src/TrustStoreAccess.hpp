// What verification code needs from a trust store beyond its public interface.
#pragma once

#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>

#include "FacadeAccess.hpp"

#include <memory>

namespace foundation::certificates::detail {

struct TrustStoreAccess {
    // A read-only store with the trust store's certificates, for verifying against; null for a
    // trust store without implementation. Reused across calls while the certificates stay the
    // same, so it must never be changed: copy it (copyStoreObjects) to add anything.
    static std::shared_ptr<X509_STORE> verificationStore(const TrustStore& trustStore) {
        const std::lock_guard<std::mutex> lock(FacadeAccess::mutex(trustStore));
        const auto& impl = FacadeAccess::implPointer(trustStore);
        return impl ? impl->verificationStore() : std::shared_ptr<X509_STORE>();
    }
};

}  // namespace foundation::certificates::detail
