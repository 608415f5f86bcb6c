#include "RevocationChecking.hpp"

#include "Asn1Conversions.hpp"
#include "FacadeAccess.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

namespace foundation::certificates::detail {

namespace {

using Mode = CertificateValidationOptions::DownloadCRL;
using Check = CertificateValidationOptions::CheckCRL;

X509SPtr parsedCertificate(const X509Certificate& certificate) {
    return FacadeAccess::read(certificate, [](const X509CertificateImpl& i) {
        i.throwIfEmpty();
        return i.shared();
    });
}

}  // namespace

bool downloadCRLs(Mode mode, Check check, std::vector<X509CRLUPtr>& crls,
                  std::vector<X509Certificate>& workingList, StoreUPtr& store,
                  const X509CertificateChain& chain, const TrustStore& trustStore, TimePoint now) {
    if (mode == Mode::No) return false;

    if (!workingList.back().isSelfSigned()) {
        // The copy at index 0 is not the certificate whose lock the validation holds, so the
        // nested validation does not wait for it.
        try {
            workingList.push_back(workingList.front().getRootCACertificate(chain, trustStore));
        } catch (const std::exception&) {
            if (mode == Mode::ThrowOnError) {
                throw X509CertificateException(
                    "CRL Download Error: Failed to retrieve Root CA certificate\n");
            }
        }
    }
    if (workingList.size() == 1) return false;

    for (std::size_t level = 0; level + 1 < workingList.size(); ++level) {
        EVP_PKEYUPtr issuerKey =
            makeEVP_PKEYUPtr(X509_get_pubkey(parsedCertificate(workingList[level + 1]).get()));
        const bool obtained = downloadCRL(workingList[level], store, crls, mode, issuerKey, now);
        if (!obtained && mode == Mode::ThrowOnError) {
            // Reached when the store refuses a list that otherwise passed every check.
            throw X509CertificateException(
                "CRL Download Error: Certificate Revocation List (CRL) download failed at level: " +
                std::to_string(level) + "\n");
        }
        if (!obtained) return false;
        if (check == Check::LeafOnly) return true;
    }
    return true;
}

CertificateRevocationResults certificateRevocationDetails(
    const std::vector<X509CRLUPtr>& crls, const std::vector<X509Certificate>& workingList) {
    for (std::size_t level = 0; level < crls.size() && level < workingList.size(); ++level) {
        const X509SPtr certificate = parsedCertificate(workingList[level]);
        const std::string serial =
            asn1IntegerToDecimalString(X509_get0_serialNumber(certificate.get()));
        STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crls[level].get());
        for (int i = 0; i < sk_X509_REVOKED_num(revoked); ++i) {
            const X509_REVOKED* entry = sk_X509_REVOKED_value(revoked, i);
            if (asn1IntegerToDecimalString(X509_REVOKED_get0_serialNumber(entry)) == serial) {
                return CertificateRevocationResults(
                    CertificateRevocationResults::RevocationStatus::Revoked,
                    asn1TimeToString(X509_REVOKED_get0_revocationDate(entry)), serial);
            }
        }
    }
    return CertificateRevocationResults(CertificateRevocationResults::RevocationStatus::NotRevoked,
                                        "", "");
}

}  // namespace foundation::certificates::detail
