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
        const auto impl = FacadeAccess::currentOrNull(trustStore);
        return impl ? impl->verificationStore() : std::shared_ptr<X509_STORE>();
    }

    // A new implementation with the other's certificates and a clone of its adder.
    static std::shared_ptr<TrustStoreImpl> copy(const TrustStoreImpl& other) {
        return std::shared_ptr<TrustStoreImpl>(
            new TrustStoreImpl(other, TrustStoreImpl::CopyTag{}));
    }
};

}  // namespace foundation::certificates::detail
