// Signature verification of a PKCS#7 structure: OpenSSL's own check first, and when only the
// signer's path failed, the library's validation of the signer to say why.
#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"
#include "PKCS7CertificateImpl.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

#include <openssl/pkcs7.h>

#include <climits>

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

// The store the signature is checked against: a copy of the caller's, which is never changed,
// or the platform's certificates when the caller's is empty.
TrustStore privateTrustStore(const TrustStore& trustStore) {
    try {
        if (!trustStore.empty()) return TrustStore(trustStore);
        TrustStore platform;
        platform.addSystemCertificates(TrustStore::Usage::Signing, false);
        platform.addSystemCertificates(TrustStore::Usage::SSL, false);
        return platform;
    } catch (const TrustStoreException& e) {
        throw PKCS7CertificateException(std::string("Internal error:") + e.what());
    }
}

}  // namespace

PKCS7CertificateValidationResults PKCS7CertificateImpl::verifySignature(
    const X509CertificateChain& chain, const TrustStore& trustStore, const ByteArray& data) const {
    const TrustStore trusted = privateTrustStore(trustStore);
    const auto store = copyOpenSSLStore(trusted);
    if (!store) throw PKCS7CertificateException("Internal error: Unable to copy the trust store.");

    // The chain's certificates may serve as intermediates and, being in the store, as anchors.
    const std::vector<X509Certificate> chainCertificates = chain.getCertificates();
    X509StackUPtr untrusted = makeX509StackUPtr(nullptr);
    if (!chainCertificates.empty()) {
        untrusted = detail::shareX509Stack(chainCertificates);
        for (int index = 0; index < sk_X509_num(untrusted.get()); ++index) {
            X509_STORE_add_cert(store.get(), sk_X509_value(untrusted.get(), index));
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

    if (PKCS7_verify(pkcs7.get(), untrusted.get(), store.get(), input.get(), nullptr, flags) == 1) {
        return {true, CertificateChainStatus::Valid, ""};
    }
    const std::string reason = earliestReason();
    if (reason != kPathFailure) return {false, CertificateChainStatus::ValidationFailed, reason};

    // Was it only the path? Then the signature alone verifies, and validation says what is wrong.
    if (PKCS7_verify(pkcs7.get(), untrusted.get(), nullptr, input.get(), nullptr, PKCS7_NOVERIFY) !=
        1) {
        return {false, CertificateChainStatus::ValidationFailed, earliestReason()};
    }
    const std::vector<X509Certificate> signers = getSignerCerts().getCertificates();
    if (signers.empty()) return {false, CertificateChainStatus::ValidationFailed, reason};

    const Options nothingTolerated(
        Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
        Options::AllowRevokedCertificate::No, Options::CheckCRL::None, Options::DownloadCRL::No);
    const CertificateValidationResults validation =
        signers.front().validateCertificate(chain, nothingTolerated, TrustStore(trusted));
    const CertificateChainStatus status = validation.getCertificateChainStatus();
    return {
        true, status,
        status == CertificateChainStatus::Valid ? reason : validation.getValidationErrorString()};
}

}  // namespace foundation::certificates
