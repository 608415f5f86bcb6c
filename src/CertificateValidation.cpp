#include <foundation/certificates/CertificateValidation.hpp>

#include <utility>

namespace foundation::certificates {

CertificateValidationOptions::CertificateValidationOptions(
    AllowSelfSignedCertificate allowSelfSigned, AllowExpiredCertificate allowExpired,
    AllowRevokedCertificate allowRevoked, CheckCRL checkCRL, DownloadCRL downloadCRL)
    : allowSelfSigned(allowSelfSigned),
      allowExpired(allowExpired),
      allowRevoked(allowRevoked),
      checkCRL(checkCRL),
      downloadCRL(downloadCRL) {}

CertificateValidationOptions& CertificateValidationOptions::withRevocationLists(
    std::vector<CertificateRevocationList> lists) {
    revocationLists = std::move(lists);
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withRevocationFetch(
    RevocationFetchSettings settings) {
    revocationFetch = std::move(settings);
    return *this;
}

CertificateRevocationResults::CertificateRevocationResults(RevocationStatus status,
                                                           std::string revocationDate,
                                                           std::string revokedSerialNumber)
    : status(status),
      revocationDate(std::move(revocationDate)),
      revokedSerialNumber(std::move(revokedSerialNumber)) {}

CertificateValidationResults::CertificateValidationResults(CertificateChainStatus status,
                                                           std::string validationErrorString)
    : status(status),
      validationErrorString(std::move(validationErrorString)),
      revocation(CertificateRevocationResults::RevocationStatus::NotRevoked, "", "") {}

void CertificateValidationResults::setCertificateRevocationResults(
    const CertificateRevocationResults& results) {
    revocation = results;
}

PKCS7CertificateValidationResults::PKCS7CertificateValidationResults(
    bool signatureVerificationStatus, CertificateChainStatus status,
    const std::string& validationErrorString)
    : signatureVerificationStatus(signatureVerificationStatus),
      status(status),
      validationErrorString(validationErrorString) {}

bool PKCS7CertificateValidationResults::isValidSignature() const {
    return signatureVerificationStatus && status == CertificateChainStatus::Valid;
}

}  // namespace foundation::certificates
