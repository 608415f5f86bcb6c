#include <foundation/certificates/SystemCertificateAdder.hpp>

#include "ExceptionLog.hpp"
#include "osx/SecurityPlatform.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>

#include <algorithm>

namespace foundation::certificates::osx {

PlatformCertificate::~PlatformCertificate() = default;
SecurityPlatform::~SecurityPlatform() = default;

namespace {

enum class Verdict { Trusted, Distrusted, None };

using CertificateList = std::vector<PlatformCertificateRef>;

std::vector<TrustPolicy> policiesFor(TrustStore::Usage usage) {
    switch (usage) {
        case TrustStore::Usage::SSL:
            return {TrustPolicy::SSL, TrustPolicy::X509Basic};
        case TrustStore::Usage::Signing:
            return {TrustPolicy::SSL, TrustPolicy::SMIME, TrustPolicy::CodeSigning,
                    TrustPolicy::TimeStamping, TrustPolicy::X509Basic};
    }
    return {};
}

// The first policy whose result is not "unspecified" decides; a certificate that cannot even
// be evaluated is distrusted.
Verdict judge(const SecurityPlatform& platform, const PlatformCertificate& certificate,
              const std::vector<TrustPolicy>& policies) {
    for (const TrustPolicy policy : policies) {
        const TrustEvaluation evaluation = platform.evaluateTrust(certificate, policy);
        if (evaluation.creationStatus != 0 || !evaluation.evaluated) return Verdict::Distrusted;
        if (evaluation.result == kTrustResultUnspecified) continue;
        return evaluation.result == kTrustResultProceed ? Verdict::Trusted : Verdict::Distrusted;
    }
    return Verdict::None;
}

bool contains(const CertificateList& list, const PlatformCertificate& certificate) {
    return std::any_of(list.begin(), list.end(), [&certificate](const PlatformCertificateRef& c) {
        return c->equals(certificate);
    });
}

void judgeDomain(const SecurityPlatform& platform, TrustSettingsDomain domain,
                 const std::vector<TrustPolicy>& policies, CertificateList& trusted,
                 CertificateList& distrusted) {
    CertificateList certificates;
    if (platform.copyCertificates(domain, certificates) != 0) return;
    for (const PlatformCertificateRef& certificate : certificates) {
        switch (judge(platform, *certificate, policies)) {
            case Verdict::Trusted:
                // A certificate trusted in two domains is handed over twice; the store keeps
                // one.
                trusted.push_back(certificate);
                break;
            case Verdict::Distrusted:
                if (!contains(distrusted, *certificate)) distrusted.push_back(certificate);
                break;
            case Verdict::None:
                break;
        }
    }
}

void addToStore(TrustStoreImpl& store, const PlatformCertificate& certificate,
                bool throwOnFailure) {
    const ByteArray der = certificate.copyData();
    try {
        store.addCertificateDER(der);
    } catch (const TrustStoreException&) {
        if (throwOnFailure) throw;
        detail::logCurrentException();
    }
}

}  // namespace

void addTrustedCertificates(const SecurityPlatform& platform, TrustStoreImpl& store,
                            TrustStore::Usage usage, bool throwOnFailure) {
    const std::vector<TrustPolicy> policies = policiesFor(usage);
    CertificateList trusted;
    {
        CertificateList distrusted;
        judgeDomain(platform, TrustSettingsDomain::User, policies, trusted, distrusted);
        judgeDomain(platform, TrustSettingsDomain::Admin, policies, trusted, distrusted);

        // The system's certificates are trusted as they are, unless the user or the
        // administrator said otherwise.
        CertificateList system;
        if (platform.copyCertificates(TrustSettingsDomain::System, system) == 0) {
            for (const PlatformCertificateRef& certificate : system) {
                if (!contains(distrusted, *certificate)) trusted.push_back(certificate);
            }
        }
    }
    for (const PlatformCertificateRef& certificate : trusted) {
        addToStore(store, *certificate, throwOnFailure);
    }
}

SystemCertificateAdder::~SystemCertificateAdder() = default;

ISystemCertificateAdder* SystemCertificateAdder::clone() const {
    return new SystemCertificateAdder(*this);
}

void SystemCertificateAdder::addSystemCertificates(TrustStoreImpl& store, TrustStore::Usage usage,
                                                   bool throwOnFailure) {
    addTrustedCertificates(defaultSecurityPlatform(), store, usage, throwOnFailure);
}

}  // namespace foundation::certificates::osx
