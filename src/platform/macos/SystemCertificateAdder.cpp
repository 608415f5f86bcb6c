#include <foundation/certificates/SystemCertificateAdder.hpp>

#include "platform/TrustDecision.hpp"

namespace foundation::certificates::osx {

SystemCertificateAdder::~SystemCertificateAdder() = default;

ISystemCertificateAdder* SystemCertificateAdder::clone() const {
    return new SystemCertificateAdder(*this);
}

void SystemCertificateAdder::addSystemCertificates(TrustStoreImpl& store, TrustStore::Usage usage,
                                                   bool throwOnFailure) {
    addTrustedCertificates(defaultSecurityPlatform(), store, usage, throwOnFailure);
}

}  // namespace foundation::certificates::osx
