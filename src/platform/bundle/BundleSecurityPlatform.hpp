// The platform operations where the system keeps no per-user or administrator trust settings
// (Linux and other non-Apple systems): the system's trusted certificates are those of the
// winning trust source (TrustSources.hpp), each with the trust settings its block carries.
#pragma once

#include "platform/bundle/TrustSources.hpp"
#include "platform/macos/SecurityPlatform.hpp"

#include <foundation/certificates/ISystemCertificateAdder.hpp>

#include <memory>

namespace foundation::certificates::detail {

class BundleSecurityPlatform final : public osx::SecurityPlatform {
  public:
    // Lists what the sources hold at each call.
    BundleSecurityPlatform() = default;
    // Lists exactly these contents, read earlier.
    explicit BundleSecurityPlatform(std::shared_ptr<const TrustSourceContents> contents)
        : contents_(std::move(contents)) {}

    int copyCertificates(osx::TrustSettingsDomain domain,
                         std::vector<osx::PlatformCertificateRef>& certificates) const override;

    // Never asked: only the system domain lists certificates, and those are not evaluated.
    osx::TrustEvaluation evaluateTrust(const osx::PlatformCertificate& certificate,
                                       osx::TrustPolicy policy) const override;

  private:
    std::shared_ptr<const TrustSourceContents> contents_;
};

// The platform's adder over contents read once, whatever happens to the files meanwhile.
std::unique_ptr<ISystemCertificateAdder> makeContentsAdder(
    std::shared_ptr<const TrustSourceContents> contents);

}  // namespace foundation::certificates::detail
