// The platform operations that decide which certificates the system trusts, modelled on the
// macOS trust settings (user, administrator and system domains, per-policy evaluations) and kept
// narrow so the decision logic (platform/TrustDecision.cpp) runs unchanged over any
// implementation: the platform's own trust settings, the bundles and directories of systems
// without them (platform/bundle/), or a scripted substitute in tests.
#pragma once

#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>

#include <memory>
#include <string>
#include <vector>

namespace foundation::certificates {

namespace osx {

// Trust settings domains, by the platform's own numbers.
enum class TrustSettingsDomain : int {
    User = 0,
    Admin = 1,
    System = 2,
};

// Trust evaluation policies.
enum class TrustPolicy {
    SSL,
    SMIME,
    CodeSigning,
    TimeStamping,
    X509Basic,
};

// Trust result codes of an evaluation that the decision logic tells apart; every other code
// (deny, failures, invalid) counts as distrust.
constexpr int kTrustResultProceed = 1;      // explicitly trusted
constexpr int kTrustResultDeny = 3;         // explicitly distrusted
constexpr int kTrustResultUnspecified = 4;  // trusted by default, no explicit setting

// What the system's own settings say of one of its certificates for a usage.
struct SystemTrust {
    enum class Verdict { Trusted, Distrusted, NotForUsage };
    Verdict verdict = Verdict::Trusted;
    std::string detail;  // why, when not trusted
};

// One certificate as the platform lists it. Handles are shared: a list and the working sets of
// one import refer to the same objects.
class PlatformCertificate {
  public:
    virtual ~PlatformCertificate();
    // The DER encoding, exactly as the platform holds it.
    virtual ByteArray copyData() const = 0;
    // The platform's equality of two certificates.
    virtual bool equals(const PlatformCertificate& other) const = 0;
    // The file or directory it was read from, for the import report; empty by default.
    virtual std::string source() const;
    // Settings the system keeps with the certificate itself (a bundle's trust and reject
    // purposes); trusted by default, as a system domain's certificates are.
    virtual SystemTrust systemTrust(TrustStore::Usage usage) const;

  protected:
    PlatformCertificate() = default;
    PlatformCertificate(const PlatformCertificate&) = default;
    PlatformCertificate& operator=(const PlatformCertificate&) = default;
};

using PlatformCertificateRef = std::shared_ptr<const PlatformCertificate>;

// One evaluation of a certificate under a policy, with expired roots allowed.
struct TrustEvaluation {
    int creationStatus = 0;  // non-zero: the evaluation could not be set up
    bool evaluated = false;  // the evaluation called the certificate trusted
    int result = 0;          // the trust result code
};

class SecurityPlatform {
  public:
    virtual ~SecurityPlatform();

    // The certificates that have trust settings in the domain: status 0 and the list, or a
    // non-zero status (for example no trust settings at all) and an untouched list.
    virtual int copyCertificates(TrustSettingsDomain domain,
                                 std::vector<PlatformCertificateRef>& certificates) const = 0;

    virtual TrustEvaluation evaluateTrust(const PlatformCertificate& certificate,
                                          TrustPolicy policy) const = 0;

  protected:
    SecurityPlatform() = default;
    SecurityPlatform(const SecurityPlatform&) = default;
    SecurityPlatform& operator=(const SecurityPlatform&) = default;
};

// The platform SystemCertificateAdder uses; lives as long as the process.
const SecurityPlatform& defaultSecurityPlatform();

}  // namespace osx
}  // namespace foundation::certificates
