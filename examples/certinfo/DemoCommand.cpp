#include "Commands.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/PKCS12Certificate.hpp>
#include <foundation/certificates/SelfSignedCertBuilder.hpp>
#include <foundation/certificates/SystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

// Nothing forgiven, no revocation lists.
fc::CertificateValidationOptions strictOptions() {
    using Options = fc::CertificateValidationOptions;
    return Options(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                   Options::AllowRevokedCertificate::No, Options::CheckCRL::None,
                   Options::DownloadCRL::No);
}

void heading(std::ostream& out, const std::string& title) { out << "== " << title << " ==\n\n"; }

void demoEncodings(std::ostream& out) {
    heading(out, "Byte encodings");
    const std::string text = "foundation::certificates";
    const fc::ByteArray bytes(text.begin(), text.end());
    const fc::ByteArray decoded = fc::base64Decode(fc::base64Encode(bytes));
    out << "\"" << text << "\"\n"
        << "  base64: " << fc::base64Encode(bytes) << '\n'
        << "  hex:    " << fc::hexEncode(bytes) << '\n'
        << "  back:   " << std::string(decoded.begin(), decoded.end()) << "\n\n";
}

void demoKeys(std::ostream& out) {
    heading(out, "Key classification (freshly generated keys)");
    struct Sample {
        const char* label;
        fc::EVP_PKEYUPtr key;
    };
    Sample samples[] = {
        {"EC P-256", fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "prime256v1"))},
        {"EC P-384", fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "secp384r1"))},
        {"Ed25519", fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"))},
        {"Ed448", fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"))},
    };
    for (const Sample& sample : samples) {
        out << sample.label << ":\n";
        describeKey(sample.key.get(), out);
    }
    out << '\n';
}

// The system's trusted roots for TLS and for signing, and one of them validated against them.
void demoSystemTrust(std::ostream& out) {
    heading(out, "The system's trusted certificates");
    for (const auto& [usage, name] : {std::make_pair(fc::TrustStore::Usage::SSL, "TLS"),
                                      std::make_pair(fc::TrustStore::Usage::Signing, "signing")}) {
        fc::TrustStore store;
        store.addSystemCertificates(usage, false);
        out << store.size() << " roots trusted for " << name << " (from "
            << fc::getSystemCertificatesFile() << ")\n";
    }
    out << '\n';

    std::string bundle;
    try {
        bundle = readInput(fc::getSystemCertificatesFile());
    } catch (const std::exception&) {
        out << "No readable trust bundle; skipping the certificate and validation demo.\n\n";
        return;
    }
    std::size_t refused = 0;
    const std::vector<fc::X509Certificate> roots = loadableCertificates(bundle, &refused);
    if (roots.empty()) return;
    out << "The bundle's first certificate:\n";
    describeCertificate(roots.front(), out);
    out << "\nValidated against the system's trust store (an empty TrustStore):\n";
    describeValidation(roots.front().validateCertificate(fc::X509CertificateChain(),
                                                         strictOptions(), fc::TrustStore()),
                       out);
    out << '\n';
}

// A localhost certificate made on the spot, trusted explicitly, and its key through PKCS#12.
void demoSelfSigned(std::ostream& out) {
    heading(out, "A self-signed certificate for localhost");
    const auto [certificate, pkcs12] = fc::SelfSignedCertBuilder()
                                           .withCommonName("localhost")
                                           .withValidityPeriod(30)
                                           .withPrivateKeyPassphrase("demo passphrase")
                                           .buildAndGetKeyBytesInPKCS12();
    describeCertificate(certificate, out);

    fc::TrustStore trustingIt;
    trustingIt.addCertificate(certificate);
    out << "\nValidated against a trust store that holds it:\n";
    describeValidation(
        certificate.validateCertificate(fc::X509CertificateChain(), strictOptions(), trustingIt),
        out);

    const fc::PKCS12Certificate opened(pkcs12, "demo passphrase");
    const auto key = opened.getPrivateKeyInfo();
    out << "\nIts key packed into PKCS#12 (" << pkcs12.size() << " bytes) and opened again: "
        << (key && key->getType() == fc::KeyType::RSA
                ? "an RSA private key, exponent of " +
                      std::to_string(key->getRSAPrivateExponent().size()) + " bytes"
                : std::string("no key"))
        << "\n\n";
}

}  // namespace

int runDemo(const std::vector<std::string>& words, std::ostream& out) {
    Arguments(words, {}, {}).expectPositionalCount(0, 0);
    out << "certinfo: a tour of foundation::certificates\n\n";
    demoEncodings(out);
    demoKeys(out);
    demoSystemTrust(out);
    demoSelfSigned(out);
    out << "Run 'certinfo --help' for the commands.\n";
    return kExitOk;
}

}  // namespace certinfo
