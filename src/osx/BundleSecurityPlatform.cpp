// The platform operations where the system keeps no per-user or administrator trust settings
// (Linux and other non-Apple systems): the system's trusted certificates are the certificates
// of OpenSSL's PEM bundle.
#include "OpenSSLPtr.hpp"
#include "osx/SecurityPlatform.hpp"

#include <foundation/certificates/SystemCertificateAdder.hpp>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>

namespace foundation::certificates {

namespace {

// The platform's status for a domain without trust settings; any non-zero status means "none".
constexpr int kNoTrustSettings = -25263;

constexpr std::string_view kBeginLine = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kEndLine = "-----END CERTIFICATE-----";

std::string fromEnvironmentOr(const char* variable, const char* fallback) {
    const char* value = std::getenv(variable);
    return value != nullptr ? value : fallback;
}

// A body that is not even base64 gives no bytes, which the store then rejects like any other
// damaged certificate: every block of the bundle is accounted for.
ByteArray decodeBody(std::string_view body) {
    if (body.size() > INT_MAX / 2) return {};
    const detail::OpenSSLPtr<EVP_ENCODE_CTX> context = detail::wrap(EVP_ENCODE_CTX_new());
    if (!context) return {};
    ByteArray der(body.size() / 4 * 3 + 3);
    int written = 0;
    int finalWritten = 0;
    EVP_DecodeInit(context.get());
    if (EVP_DecodeUpdate(context.get(), der.data(), &written,
                         reinterpret_cast<const unsigned char*>(body.data()),
                         static_cast<int>(body.size())) < 0 ||
        EVP_DecodeFinal(context.get(), der.data() + written, &finalWritten) != 1) {
        return {};
    }
    der.resize(static_cast<std::size_t>(written + finalWritten));
    return der;
}

// The DER bytes of every certificate block of the bundle, in file order, as they are (not
// parsed), or nothing when the file cannot be read. The one place the bundle is read.
std::optional<std::vector<ByteArray>> readBundle(const std::string& path) {
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    const std::unique_ptr<std::FILE, Closer> file(std::fopen(path.c_str(), "rb"));
    if (!file) return std::nullopt;
    std::string text;
    char chunk[16384];
    std::size_t read = 0;
    while ((read = std::fread(chunk, 1, sizeof chunk, file.get())) > 0) text.append(chunk, read);
    if (std::ferror(file.get()) != 0) return std::nullopt;  // a directory, for one

    std::vector<ByteArray> blocks;
    std::size_t position = 0;
    while ((position = text.find(kBeginLine, position)) != std::string::npos) {
        const std::size_t bodyStart = position + kBeginLine.size();
        const std::size_t bodyEnd = text.find(kEndLine, bodyStart);
        if (bodyEnd == std::string::npos) break;  // an unfinished block is no block
        blocks.push_back(decodeBody(std::string_view(text).substr(bodyStart, bodyEnd - bodyStart)));
        position = bodyEnd + kEndLine.size();
    }
    return blocks;
}

class BundleCertificate final : public osx::PlatformCertificate {
  public:
    explicit BundleCertificate(ByteArray der) : der(std::move(der)) {}
    ByteArray copyData() const override { return der; }
    bool equals(const osx::PlatformCertificate& other) const override {
        return other.copyData() == der;
    }

  private:
    ByteArray der;
};

class BundleSecurityPlatform final : public osx::SecurityPlatform {
  public:
    int copyCertificates(osx::TrustSettingsDomain domain,
                         std::vector<osx::PlatformCertificateRef>& certificates) const override {
        if (domain != osx::TrustSettingsDomain::System) return kNoTrustSettings;
        std::optional<std::vector<ByteArray>> blocks = readBundle(getSystemCertificatesFile());
        if (!blocks) return kNoTrustSettings;
        certificates.clear();
        certificates.reserve(blocks->size());
        for (ByteArray& der : *blocks) {
            certificates.push_back(std::make_shared<const BundleCertificate>(std::move(der)));
        }
        return 0;
    }

    // Never asked: only the system domain lists certificates, and those are not evaluated.
    osx::TrustEvaluation evaluateTrust(const osx::PlatformCertificate&,
                                       osx::TrustPolicy) const override {
        osx::TrustEvaluation evaluation;
        evaluation.creationStatus = kNoTrustSettings;
        return evaluation;
    }
};

}  // namespace

namespace osx {

const SecurityPlatform& defaultSecurityPlatform() {
    static const BundleSecurityPlatform platform;
    return platform;
}

}  // namespace osx

std::string getSystemCertificatesFile() {
    return fromEnvironmentOr(X509_get_default_cert_file_env(), X509_get_default_cert_file());
}

std::string getSystemCertificatesFolder() {
    return fromEnvironmentOr(X509_get_default_cert_dir_env(), X509_get_default_cert_dir());
}

}  // namespace foundation::certificates
