#include "Commands.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/KeyConversions.hpp>

#include <openssl/pem.h>

#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

const char* groupName(fc::EllipticCurve curve) {
    switch (curve) {
        case fc::EllipticCurve::Prime256v1:
            return "prime256v1 (P-256)";
        case fc::EllipticCurve::Ed25519:
            return "Ed25519";
        case fc::EllipticCurve::Secp384r1:
            return "secp384r1 (P-384)";
        case fc::EllipticCurve::Secp521r1:
            return "secp521r1 (P-521)";
        case fc::EllipticCurve::Ed448:
            return "Ed448";
    }
    return "?";
}

}  // namespace

const char* curveName(fc::EllipticCurve curve) {
    switch (curve) {
        case fc::EllipticCurve::Prime256v1:
            return "EC P-256";
        case fc::EllipticCurve::Ed25519:
            return "Ed25519";
        case fc::EllipticCurve::Secp384r1:
            return "EC P-384";
        case fc::EllipticCurve::Secp521r1:
            return "EC P-521";
        case fc::EllipticCurve::Ed448:
            return "Ed448";
    }
    return "?";
}

void applyKeyAcceptance(const Arguments& args) {
    if (args.flag("extended-keys")) fc::setKeyAcceptance(fc::KeyAcceptance::Extended);
}

void describeKey(const EVP_PKEY* key, std::ostream& out) {
    try {
        const fc::KeyType type = fc::getKeyType(key);
        out << "  type:  " << (type == fc::KeyType::RSA ? "RSA" : "ECC") << '\n';
        if (type == fc::KeyType::ECC) {
            const fc::EllipticCurve curve = fc::getEllipticCurve(key);
            out << "  curve: " << groupName(curve) << '\n';
        }
        out << "  bits:  " << EVP_PKEY_get_bits(key) << '\n';
    } catch (const fc::CertificateException& e) {
        out << "  not supported: " << e.what() << '\n';
    }
}

int runKey(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {}, {"extended-keys"});
    args.expectPositionalCount(1, 1);
    applyKeyAcceptance(args);
    const std::string text = readInput(args.positional(0, "key file"));

    fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    fc::EVP_PKEYUPtr key =
        fc::makeEVP_PKEYUPtr(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
    const char* kind = "public key";
    if (!key) {
        bio = fc::makeBIOUPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
        key = fc::makeEVP_PKEYUPtr(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
        kind = "private key";
    }
    if (!key) {
        out << "no PEM public or private key found\n";
        return kExitFailure;
    }
    out << kind << ":\n";
    describeKey(key.get(), out);
    return kExitOk;
}

}  // namespace certinfo
