#include "support/TestCRLs.hpp"

#include <openssl/x509.h>

#include <stdexcept>

namespace testsupport {

namespace fc = foundation::certificates;

namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("test CRL: ") + what);
}

}  // namespace

fc::X509CRLUPtr makeCRL(X509* issuer, EVP_PKEY* issuerKey,
                        const std::vector<std::string>& revokedSerialsHex) {
    fc::X509CRLUPtr crl = fc::makeX509CRLUPtr(X509_CRL_new());
    require(crl != nullptr, "X509_CRL_new");
    require(X509_CRL_set_version(crl.get(), 1) == 1, "version");
    require(X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer)) == 1, "issuer");

    ASN1_TIME* lastUpdate = X509_gmtime_adj(nullptr, -3600);
    ASN1_TIME* nextUpdate = X509_gmtime_adj(nullptr, 7 * 86400);
    const bool timesSet = lastUpdate != nullptr && nextUpdate != nullptr &&
                          X509_CRL_set1_lastUpdate(crl.get(), lastUpdate) == 1 &&
                          X509_CRL_set1_nextUpdate(crl.get(), nextUpdate) == 1;
    ASN1_TIME_free(lastUpdate);
    ASN1_TIME_free(nextUpdate);
    require(timesSet, "update times");

    for (const std::string& serialHex : revokedSerialsHex) {
        X509_REVOKED* revoked = X509_REVOKED_new();
        require(revoked != nullptr, "X509_REVOKED_new");
        BIGNUM* serial = nullptr;
        ASN1_INTEGER* serialNumber = nullptr;
        ASN1_TIME* date = X509_gmtime_adj(nullptr, -60);
        const bool filled = BN_hex2bn(&serial, serialHex.c_str()) > 0 &&
                            (serialNumber = BN_to_ASN1_INTEGER(serial, nullptr)) != nullptr &&
                            date != nullptr &&
                            X509_REVOKED_set_serialNumber(revoked, serialNumber) == 1 &&
                            X509_REVOKED_set_revocationDate(revoked, date) == 1;
        BN_free(serial);
        ASN1_INTEGER_free(serialNumber);
        ASN1_TIME_free(date);
        if (!filled || X509_CRL_add0_revoked(crl.get(), revoked) != 1) {
            X509_REVOKED_free(revoked);
            require(false, "revoked entry");
        }
    }
    require(X509_CRL_sort(crl.get()) == 1, "sort");
    require(X509_CRL_sign(crl.get(), issuerKey, EVP_sha256()) > 0, "signing");
    return crl;
}

}  // namespace testsupport
