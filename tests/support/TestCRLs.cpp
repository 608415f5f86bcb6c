#include "support/TestCRLs.hpp"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace testsupport {

namespace fc = foundation::certificates;

namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("test CRL: ") + what);
}

fc::X509CRLUPtr makeCRL(const CRLRecipe& recipe, std::optional<long> crlNumber) {
    require(recipe.issuer != nullptr && recipe.signingKey != nullptr, "issuer and key required");
    fc::X509CRLUPtr crl = fc::makeX509CRLUPtr(X509_CRL_new());
    require(crl != nullptr, "X509_CRL_new");
    require(X509_CRL_set_version(crl.get(), 1) == 1, "version");
    require(X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(recipe.issuer)) == 1,
            "issuer");

    const auto setTime = [](long offset, int (*setter)(X509_CRL*, const ASN1_TIME*),
                            X509_CRL* list) {
        ASN1_TIME* time = X509_gmtime_adj(nullptr, offset);
        require(time != nullptr, "time");
        const int ok = setter(list, time);
        ASN1_TIME_free(time);
        require(ok == 1, "setting time");
    };
    setTime(recipe.lastUpdateOffset, X509_CRL_set1_lastUpdate, crl.get());
    if (recipe.nextUpdateOffset)
        setTime(*recipe.nextUpdateOffset, X509_CRL_set1_nextUpdate, crl.get());

    for (const RevokedEntry& entry : recipe.revoked) {
        X509_REVOKED* revoked = X509_REVOKED_new();
        require(revoked != nullptr, "X509_REVOKED_new");
        BIGNUM* serial = nullptr;
        BN_hex2bn(&serial, entry.serialHex.c_str());
        ASN1_INTEGER* integer = BN_to_ASN1_INTEGER(serial, nullptr);
        BN_free(serial);
        ASN1_TIME* date = ASN1_TIME_set(nullptr, entry.revocationDate);
        ASN1_ENUMERATED* reason = entry.reason ? ASN1_ENUMERATED_new() : nullptr;
        const bool ok = integer != nullptr && date != nullptr &&
                        X509_REVOKED_set_serialNumber(revoked, integer) == 1 &&
                        X509_REVOKED_set_revocationDate(revoked, date) == 1 &&
                        (!entry.reason ||
                         (reason != nullptr && ASN1_ENUMERATED_set(reason, *entry.reason) == 1 &&
                          X509_REVOKED_add1_ext_i2d(revoked, NID_crl_reason, reason, 0, 0) == 1)) &&
                        X509_CRL_add0_revoked(crl.get(), revoked) == 1;
        ASN1_INTEGER_free(integer);
        ASN1_TIME_free(date);
        ASN1_ENUMERATED_free(reason);
        if (!ok) X509_REVOKED_free(revoked);
        require(ok, "revoked entry");
    }
    if (crlNumber) {
        ASN1_INTEGER* number = ASN1_INTEGER_new();
        const bool ok = number != nullptr && ASN1_INTEGER_set(number, *crlNumber) == 1 &&
                        X509_CRL_add1_ext_i2d(crl.get(), NID_crl_number, number, 0, 0) == 1;
        ASN1_INTEGER_free(number);
        require(ok, "CRL number");
    }
    require(X509_CRL_sort(crl.get()) == 1, "sort");
    require(X509_CRL_sign(crl.get(), recipe.signingKey, EVP_sha256()) > 0, "signing");
    return crl;
}

}  // namespace

fc::X509CRLUPtr makeCRL(const CRLRecipe& recipe) { return makeCRL(recipe, std::nullopt); }

fc::X509CRLUPtr makeNumberedCRL(const CRLRecipe& recipe, long crlNumber) {
    return makeCRL(recipe, crlNumber);
}

fc::X509CRLUPtr makeCRL(X509* issuer, EVP_PKEY* issuerKey,
                        const std::vector<std::string>& revokedSerialsHex) {
    CRLRecipe recipe;
    recipe.issuer = issuer;
    recipe.signingKey = issuerKey;
    for (const std::string& serial : revokedSerialsHex) {
        recipe.revoked.push_back({serial, std::time(nullptr)});
    }
    return makeCRL(recipe);
}

fc::ByteArray crlToDER(const X509_CRL* crl) {
    const int length = i2d_X509_CRL(crl, nullptr);
    require(length > 0, "DER length");
    fc::ByteArray bytes(static_cast<std::size_t>(length));
    unsigned char* out = bytes.data();
    require(i2d_X509_CRL(crl, &out) == length, "DER writing");
    return bytes;
}

std::string crlToPEM(const X509_CRL* crl) {
    const fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_X509_CRL(bio.get(), crl) == 1, "PEM writing");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

}  // namespace testsupport
