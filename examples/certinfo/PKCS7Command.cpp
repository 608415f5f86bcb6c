#include "Commands.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <openssl/err.h>
#include <openssl/pem.h>

#include <ostream>
#include <sstream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

std::string count(std::size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

const char* statusName(fc::CertificateChainStatus status) {
    switch (status) {
        case fc::CertificateChainStatus::Valid:
            return "valid";
        case fc::CertificateChainStatus::InvalidChain:
            return "no path to a trusted certificate";
        case fc::CertificateChainStatus::SelfSigned:
            return "self-signed and not trusted";
        case fc::CertificateChainStatus::CRLError:
            return "revocation list problem";
        case fc::CertificateChainStatus::Revoked:
            return "revoked";
        case fc::CertificateChainStatus::Expired:
            return "expired";
        case fc::CertificateChainStatus::InvalidSignature:
            return "a certificate's signature does not verify";
        case fc::CertificateChainStatus::ValidationFailed:
            return "validation failed";
    }
    return "unknown";
}

// Every certificate of a PEM bundle goes into the store as OpenSSL reads it: X509Certificate
// refuses some key types (P-384, for one) that trusted roots use.
fc::TrustStore trustStoreFrom(const std::string& path) {
    const std::string pem = readInput(path);
    const fc::BIOUPtr bio =
        fc::makeBIOUPtr(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    fc::TrustStore store;
    const std::shared_ptr<X509_STORE> live = fc::getOpenSSLStore(store);
    std::size_t added = 0;
    while (fc::X509UPtr certificate =
               fc::makeX509UPtr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))) {
        if (X509_STORE_add_cert(live.get(), certificate.get()) == 1) ++added;
    }
    ERR_clear_error();  // the end of the text reads as an error
    if (added == 0) throw std::runtime_error("no certificate in " + path);
    return store;
}

int verify(const fc::PKCS7Certificate& pkcs7, const Arguments& args, std::ostream& out) {
    const fc::X509CertificateChain chain =
        args.value("chain") ? fc::X509CertificateChain(readInput(*args.value("chain")))
                            : fc::X509CertificateChain();
    // Empty: the library uses the system's trusted certificates.
    const fc::TrustStore trust =
        args.value("trust") ? trustStoreFrom(*args.value("trust")) : fc::TrustStore();
    std::string content;
    if (const auto path = args.value("content")) content = readInput(*path);

    const fc::PKCS7CertificateValidationResults results =
        pkcs7.verifySignature(chain, trust, fc::ByteArray(content.begin(), content.end()));
    out << "Signature:    "
        << (results.getSignatureVerificationStatus() ? "verifies" : "does not verify") << '\n'
        << "Signer chain: " << statusName(results.getCertificateChainStatus()) << " ("
        << static_cast<unsigned>(results.getCertificateChainStatus()) << ")\n";
    std::istringstream text(results.getValidationErrorString());
    for (std::string line; std::getline(text, line);) out << "  " << line << '\n';
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
