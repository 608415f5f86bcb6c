// Arbitrary bytes into the certificate constructors. Only the library's exceptions may come out,
// the OpenSSL error queue must be empty afterwards, and a loaded certificate must answer every
// accessor without crashing.
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <openssl/err.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <sstream>

namespace fc = foundation::certificates;

namespace {

void tolerate(const std::function<void()>& accessor) {
    try {
        accessor();
    } catch (const fc::CertificateException&) {
    }
}

void exercise(const fc::X509Certificate& certificate) {
    std::ostringstream sink;
    tolerate([&] { sink << certificate.getAsPEMString() << certificate.getAsString(); });
    tolerate([&] { sink << certificate.getSubjectName() << certificate.getIssuerName(); });
    tolerate([&] { sink << certificate.getSubjectNameAsRDNs().size(); });
    tolerate([&] { sink << certificate.getIssuerNameAsRDNs().size(); });
    tolerate([&] { sink << certificate.getSubjectCommonName(); });
    tolerate([&] { sink << certificate.getIssuerCommonName(); });
    tolerate([&] { sink << certificate.getSerialNumber() << certificate.getSignatureAlgorithm(); });
    tolerate([&] { sink << certificate.getValidNotBefore() << certificate.getValidNotAfter(); });
    tolerate([&] { sink << certificate.getValidNotBeforeTimePoint().time_since_epoch().count(); });
    tolerate([&] { sink << certificate.getValidNotAfterTimePoint().time_since_epoch().count(); });
    tolerate([&] { sink << certificate.isSelfSigned() << certificate.isCACertificate(); });
    tolerate([&] { sink << certificate.isValidForDigitalSigning(); });
    tolerate(
        [&] { sink << certificate.getKeySize() << certificate.getPublicKeyInfo().getKeySize(); });
    tolerate(
        [&] { sink << certificate.getModulus().size() << certificate.getPublicExponent().size(); });
    tolerate([&] {
        const auto names = certificate.getSubjectAlternativeNames();
        sink << names.dnsNames.size() << names.ipAddresses.size() << names.emailAddresses.size()
             << names.uris.size();
    });
    tolerate([&] { sink << certificate.getCRLDistributionPoints().size(); });
    tolerate([&] { sink << certificate.getOCSPResponders().size(); });
    tolerate([&] { sink << certificate.getCAIssuers().size(); });
    tolerate([&] { sink << certificate.getKeyUsage().size(); });
    tolerate([&] { sink << certificate.getExtendedKeyUsage().size(); });
    tolerate([&] { sink << certificate.getCertificatePolicies().size(); });
    tolerate([&] { sink << certificate.getPathLengthConstraint().value_or(-1); });
    tolerate([&] { sink << certificate.getSubjectKeyIdentifier().size(); });
    tolerate([&] { sink << certificate.getAuthorityKeyIdentifier().size(); });
    tolerate([&] { sink << certificate.getSubjectPublicKeyInfoSHA256(); });
    tolerate([&] { sink << (certificate == certificate.clone()); });
    tolerate([&] { certificate.print(sink); });
    // What the library writes out must load back to the same certificate.
    if (fc::X509Certificate(certificate.getAsPEMString()) != certificate) std::abort();
    if (fc::X509Certificate(certificate.getAsBytes()) != certificate) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fc::ByteArray bytes(data, data + size);
    try {
        exercise(fc::X509Certificate(bytes));
    } catch (const fc::CertificateException&) {
    }
    if (ERR_peek_error() != 0) std::abort();

    std::istringstream stream(std::string(bytes.begin(), bytes.end()));
    try {
        const fc::X509Certificate fromStream(stream);
    } catch (const fc::CertificateException&) {
    }
    if (ERR_peek_error() != 0) std::abort();
    return 0;
}
