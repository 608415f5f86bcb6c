#include "platform/bundle/BundleSecurityPlatform.hpp"

#include "platform/TrustDecision.hpp"
#include "platform/bundle/CertificateBlocks.hpp"

#include <foundation/certificates/SystemCertificateAdder.hpp>

#include <openssl/x509.h>

#include <cstdlib>

namespace foundation::certificates {

namespace detail {

namespace {

// The platform's status for a domain without trust settings; any non-zero status means "none".
constexpr int kNoTrustSettings = -25263;

class BundleCertificate final : public osx::PlatformCertificate {
  public:
    BundleCertificate(DecodedBlock block, const std::string& source)
        : block(std::move(block)), source_(source) {}

    ByteArray copyData() const override { return block.der; }
    bool equals(const osx::PlatformCertificate& other) const override {
        return other.copyData() == block.der;
    }
    std::string source() const override { return source_; }
    osx::SystemTrust systemTrust(TrustStore::Usage usage) const override {
        return block.settings ? block.settings->judge(usage) : osx::SystemTrust{};
    }

  private:
    DecodedBlock block;
    std::string source_;
};

class ContentsAdder final : public ISystemCertificateAdder {
  public:
    explicit ContentsAdder(std::shared_ptr<const TrustSourceContents> contents)
        : contents(std::move(contents)) {}
    ISystemCertificateAdder* clone() const override { return new ContentsAdder(*this); }
    void addSystemCertificates(TrustStoreImpl& store, TrustStore::Usage usage,
                               bool throwOnFailure) override {
        osx::addTrustedCertificates(BundleSecurityPlatform(contents), store, usage, throwOnFailure);
    }

  private:
    std::shared_ptr<const TrustSourceContents> contents;
};

}  // namespace

int BundleSecurityPlatform::copyCertificates(
    osx::TrustSettingsDomain domain, std::vector<osx::PlatformCertificateRef>& certificates) const {
    if (domain != osx::TrustSettingsDomain::System) return kNoTrustSettings;
    const std::shared_ptr<const TrustSourceContents> contents =
        contents_ ? contents_ : std::make_shared<const TrustSourceContents>(readTrustSources());
    if (contents->files.empty()) return kNoTrustSettings;
    certificates.clear();
    for (const TrustFile& file : contents->files) {
        for (const CertificateBlock& block : findCertificateBlocks(file.text)) {
            certificates.push_back(std::make_shared<const BundleCertificate>(
                decodeCertificateBlock(block), contents->sources[file.source]));
        }
    }
    return 0;
}

osx::TrustEvaluation BundleSecurityPlatform::evaluateTrust(const osx::PlatformCertificate&,
                                                           osx::TrustPolicy) const {
    osx::TrustEvaluation evaluation;
    evaluation.creationStatus = kNoTrustSettings;
    return evaluation;
}

std::unique_ptr<ISystemCertificateAdder> makeContentsAdder(
    std::shared_ptr<const TrustSourceContents> contents) {
    return std::make_unique<ContentsAdder>(std::move(contents));
}

}  // namespace detail

namespace osx {

const SecurityPlatform& defaultSecurityPlatform() {
    static const detail::BundleSecurityPlatform platform;
    return platform;
}

}  // namespace osx

namespace {

std::string fromEnvironmentOr(const char* variable, const char* fallback) {
    const char* value = std::getenv(variable);
    return value != nullptr ? value : fallback;
}

}  // namespace

std::string getSystemCertificatesFile() {
    return fromEnvironmentOr(X509_get_default_cert_file_env(), X509_get_default_cert_file());
}

std::string getSystemCertificatesFolder() {
    return fromEnvironmentOr(X509_get_default_cert_dir_env(), X509_get_default_cert_dir());
}

}  // namespace foundation::certificates
