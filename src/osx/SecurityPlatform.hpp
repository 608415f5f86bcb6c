// The platform operations that decide which certificates the system trusts, kept narrow so the
// decision logic in SystemCertificateAdder.cpp runs unchanged over any implementation: the
// platform's own trust settings, the PEM bundle of systems without them
// (BundleSecurityPlatform.cpp), or a scripted substitute in tests.
#pragma once

#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>

#include <memory>
#include <string>
#include <vector>

namespace foundation::certificates {

class TrustStoreImpl;

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

// One certificate as the platform lists it. Handles are shared: a list and the working sets of
// one import refer to the same objects.
class PlatformCertificate {
  public:
    virtual ~PlatformCertificate();
    // The DER encoding, exactly as the platform holds it.
    virtual ByteArray copyData() const = 0;
    // The platform's equality of two certificates.
    virtual bool equals(const PlatformCertificate& other) const = 0;

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

// Adds to the store the certificates the platform trusts for the usage: those the user, then
// the administrator, explicitly trusts, then the system's own except those either distrusts.
void addTrustedCertificates(const SecurityPlatform& platform, TrustStoreImpl& store,
                            TrustStore::Usage usage, bool throwOnFailure);

}  // namespace osx
}  // namespace foundation::certificates
