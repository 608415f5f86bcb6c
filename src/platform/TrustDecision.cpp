#include "platform/TrustDecision.hpp"

#include "ExceptionLog.hpp"
#include "TrustImportRecorder.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>

#include <algorithm>

namespace foundation::certificates::osx {

PlatformCertificate::~PlatformCertificate() = default;
SecurityPlatform::~SecurityPlatform() = default;

std::string PlatformCertificate::source() const { return {}; }

SystemTrust PlatformCertificate::systemTrust(TrustStore::Usage) const { return {}; }

namespace {

using Reason = SkippedCertificate::Reason;

enum class Verdict { Trusted, Distrusted, None };

using CertificateList = std::vector<PlatformCertificateRef>;

// A certificate kept out of the store, and why.
struct KeptOut {
    PlatformCertificateRef certificate;
    Reason reason;
    std::string detail;
};

using KeptOutList = std::vector<KeptOut>;

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

const KeptOut* find(const KeptOutList& list, const PlatformCertificate& certificate) {
    const auto found = std::find_if(list.begin(), list.end(), [&certificate](const KeptOut& k) {
        return k.certificate->equals(certificate);
    });
    return found != list.end() ? &*found : nullptr;
}

void judgeDomain(const SecurityPlatform& platform, TrustSettingsDomain domain,
                 const std::vector<TrustPolicy>& policies, CertificateList& trusted,
                 KeptOutList& distrusted) {
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
                if (find(distrusted, *certificate) == nullptr) {
                    distrusted.push_back({certificate, Reason::Distrusted,
                                          "Distrusted by the user's or the administrator's trust "
                                          "settings"});
                }
                break;
            case Verdict::None:
                break;
        }
    }
}

// The system's certificates are trusted as they are, unless the user or the administrator said
// otherwise or their own settings keep them out for the usage; such settings hold for every
// copy of the certificate the system lists.
void judgeSystem(const SecurityPlatform& platform, TrustStore::Usage usage,
                 detail::TrustImportRecorder* recorder, CertificateList& trusted,
                 KeptOutList& distrusted, KeptOutList& keptOut) {
    CertificateList system;
    if (platform.copyCertificates(TrustSettingsDomain::System, system) != 0) return;
    for (const PlatformCertificateRef& certificate : system) {
        SystemTrust own = certificate->systemTrust(usage);
        if (own.verdict == SystemTrust::Verdict::Trusted || find(distrusted, *certificate)) {
            continue;
        }
        const Reason reason = own.verdict == SystemTrust::Verdict::Distrusted
                                  ? Reason::Distrusted
                                  : Reason::NotValidForUsage;
        distrusted.push_back({certificate, reason, std::move(own.detail)});
    }
    for (const PlatformCertificateRef& certificate : system) {
        if (recorder != nullptr) recorder->addSource(certificate->source());
        if (const KeptOut* out = find(distrusted, *certificate)) {
            keptOut.push_back({certificate, out->reason, out->detail});
        } else {
            trusted.push_back(certificate);
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
    detail::TrustImportRecorder* recorder = detail::TrustImportRecorder::activeFor(store);
    const std::vector<TrustPolicy> policies = policiesFor(usage);
    CertificateList trusted;
    KeptOutList keptOut;
    {
        KeptOutList distrusted;
        judgeDomain(platform, TrustSettingsDomain::User, policies, trusted, distrusted);
        judgeDomain(platform, TrustSettingsDomain::Admin, policies, trusted, distrusted);
        judgeSystem(platform, usage, recorder, trusted, distrusted, keptOut);
    }
    for (const PlatformCertificateRef& certificate : trusted) {
        addToStore(store, *certificate, throwOnFailure);
    }
    // After the additions, so that a certificate the user trusts is reported as imported even
    // where the system's copy of it was kept out.
    if (recorder == nullptr) return;
    for (const KeptOut& out : keptOut) {
        recorder->keptOut(out.certificate->copyData(), out.reason, out.detail);
    }
}

}  // namespace foundation::certificates::osx
