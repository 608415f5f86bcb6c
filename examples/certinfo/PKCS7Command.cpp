#include "Commands.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <ostream>
#include <string>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

std::string count(std::size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

int verify(const fc::PKCS7Certificate& pkcs7, const Arguments& args, std::ostream& out) {
    const fc::X509CertificateChain chain =
        args.value("chain") ? fc::X509CertificateChain(readInput(*args.value("chain")))
                            : fc::X509CertificateChain();
    const fc::TrustStore trust = trustStoreFrom(args.value("trust"), out);
    std::string content;
    if (const auto path = args.value("content")) content = readInput(*path);

    const fc::PKCS7CertificateValidationResults results =
        pkcs7.verifySignature(chain, trust, fc::ByteArray(content.begin(), content.end()));
    out << "Signature:    "
        << (results.getSignatureVerificationStatus() ? "verifies" : "does not verify") << '\n'
        << "Chain status: " << chainStatusName(results.getCertificateChainStatus()) << " ("
        << static_cast<unsigned>(results.getCertificateChainStatus()) << ")\n";
    const std::string text = results.getValidationErrorString();
    if (!text.empty()) {
        // OpenSSL's reasons come without a line end, validation texts with one.
        out << "Error text:\n" << text << (text.back() == '\n' ? "" : "\n");
    }
    const bool valid = results.isValidSignature();
    out << (valid ? "Valid signature\n" : "Not a valid signature\n");
    return valid ? kExitOk : kExitNegative;
}

}  // namespace

int runPKCS7(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {"content", "chain", "trust"}, {"pem", "verify"});
    args.expectPositionalCount(1, 1);
    const bool verifying = args.flag("verify");
    if (!verifying && (args.value("content") || args.value("chain") || args.value("trust"))) {
        throw UsageError("--content, --chain and --trust go with --verify");
    }
    if (verifying && args.flag("pem")) throw UsageError("--pem and --verify exclude each other");
    const std::string data = readInput(args.positional(0, "PKCS#7 file"));
    const fc::PKCS7Certificate pkcs7(fc::ByteArray(data.begin(), data.end()));
    if (verifying) return verify(pkcs7, args, out);
    if (args.flag("pem")) {
        out << pkcs7.getAsString();
        return kExitOk;
    }

    const std::vector<fc::X509Certificate> certificates = pkcs7.getCertificates();
    out << count(certificates.size(), "certificate", "certificates") << " in the structure\n\n";
    for (std::size_t i = 0; i < certificates.size(); ++i) {
        out << "[" << i << "] ";
        describeCertificate(certificates[i], out);
        out << '\n';
    }

    const std::vector<fc::X509Certificate> signers = pkcs7.getSignerCerts().getCertificates();
    out << count(signers.size(), "signer", "signers");
    if (signers.empty()) {
        out << " (a certificate bundle, or the signers' certificates are not inside)\n";
    } else {
        out << ":\n";
        for (const fc::X509Certificate& signer : signers) {
            out << "  " << signer.getSubjectName() << "\n    SHA-256 "
                << signer.getSHA256Fingerprint() << '\n';
        }
    }

    // Content comes back only once its signature checks out with the enclosed certificates.
    const fc::ByteArray content = pkcs7.getSignedData();
    if (!content.empty()) {
        out << "Attached content: " << count(content.size(), "byte", "bytes")
            << ", signature intact (signer paths not checked)\n";
    } else if (!signers.empty()) {
        out << "Attached content: none, or its signature does not check out\n";
    }
    return kExitOk;
}

}  // namespace certinfo
