// Signature verification of a PKCS#7 structure: OpenSSL's own check first, and when only the
// signer's path failed, the library's validation of the signer to say why.
#include "PKCS7CertificateImpl.hpp"

#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"
#include "PlatformTrust.hpp"
#include "StoreSnapshot.hpp"
#include "ValidationRecorder.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

#include <openssl/pkcs7.h>

#include <climits>
#include <memory>
#include <string>
#include <vector>

namespace foundation::certificates {

namespace {

using Options = CertificateValidationOptions;

// OpenSSL's reason when the signature is fine but the signer's path is not.
constexpr const char* kPathFailure = "certificate verify error";

// Consumes the earliest queued error, which may be one the caller left behind; later ones stay.
std::string earliestReason() {
    const detail::ScopedErrorQueueMark mark;
    return detail::getOpenSSLErrorReason();
}

// The certificates the signature's path is checked against, read-only: the caller's, or the
// platform's when the caller's store is empty.
std::shared_ptr<X509_STORE> trustedStore(const TrustStore& trustStore) {
    try {
        return detail::trustedVerificationStore(trustStore);
    } catch (const TrustStoreException& e) {
        throw PKCS7CertificateException(std::string("Internal error:") + e.what());
    }
}

}  // namespace

PKCS7CertificateValidationResults PKCS7CertificateImpl::verifySignature(
    const X509CertificateChain& chain, const TrustStore& trustStore, const ByteArray& data) const {
    const std::shared_ptr<X509_STORE> trusted = trustedStore(trustStore);

    // The chain's certificates serve as intermediates and, being put into the store, as
    // anchors. The shared store is never changed: they go into a private copy of it.
    const std::vector<X509Certificate> chainCertificates = chain.getCertificates();
    X509StackUPtr untrusted = makeX509StackUPtr(nullptr);
    detail::OpenSSLPtr<X509_STORE> withChain;
    X509_STORE* store = trusted.get();
    if (!chainCertificates.empty()) {
        untrusted = detail::shareX509Stack(chainCertificates);
        withChain = detail::copyStoreObjects(trusted.get());
        store = withChain.get();
        for (int index = 0; index < sk_X509_num(untrusted.get()); ++index) {
            X509_STORE_add_cert(store, sk_X509_value(untrusted.get(), index));
        }
    }

    // A read-only view of the caller's bytes: both verifications read it from the start.
    BIOUPtr input = makeBIOUPtr(nullptr);
    int flags = PKCS7_NO_DUAL_CONTENT;
    if (!data.empty()) {
        input = makeBIOUPtr(data.size() <= INT_MAX
                                ? BIO_new_mem_buf(data.data(), static_cast<int>(data.size()))
                                : nullptr);
        if (!input) {
            throw PKCS7CertificateException(
                "Internal error: The given input data bytes could not be written to a buffer.");
        }
        flags = 0;
    }

    const auto verify = [&](X509_STORE* against, int verifyFlags) {
        return withStructure([&](PKCS7* pkcs7) {
            return PKCS7_verify(pkcs7, untrusted.get(), against, input.get(), nullptr,
                                verifyFlags) == 1;
        });
    };
    if (verify(store, flags)) return {true, CertificateChainStatus::Valid, ""};
    const std::string reason = earliestReason();
    if (reason != kPathFailure) return {false, CertificateChainStatus::ValidationFailed, reason};

    // Was it only the path? Then the signature alone verifies, and validation says what is wrong.
    if (!verify(nullptr, PKCS7_NOVERIFY)) {
        return {false, CertificateChainStatus::ValidationFailed, earliestReason()};
    }
    const std::vector<X509Certificate> signers = getSignerCerts().getCertificates();
    if (signers.empty()) return {false, CertificateChainStatus::ValidationFailed, reason};

    const Options nothingTolerated(
        Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
        Options::AllowRevokedCertificate::No, Options::CheckCRL::None, Options::DownloadCRL::No);
    // Given the caller's store, validation trusts exactly what the verification trusted.
    const CertificateValidationResults validation =
        signers.front().validateCertificate(chain, nothingTolerated, trustStore);
    const CertificateChainStatus status = validation.getCertificateChainStatus();
    PKCS7CertificateValidationResults results(
        true, status,
        status == CertificateChainStatus::Valid ? reason : validation.getValidationErrorString());
    detail::ValidationReportAccess::attach(results, validation);
    return results;
}

}  // namespace foundation::certificates
