// X509Certificate: loading, serialising, fingerprints, equality and field accessors, each beside
// the OpenSSL calls that do the same work.
#include "BenchSupport.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <openssl/bn.h>
#include <openssl/pem.h>

#include <climits>
#include <string>
#include <unordered_map>

namespace bench {

namespace {

namespace fc = foundation::certificates;

// What a caller needs after a parse: the certificate and its key's type and size.
void readPublicKey(X509* certificate) {
    const EVP_PKEY* key = X509_get0_pubkey(certificate);
    benchmark::DoNotOptimize(EVP_PKEY_get_base_id(key));
    benchmark::DoNotOptimize(EVP_PKEY_get_bits(key));
}

void rawFromPEM(const std::string& pem) {
    Owned<BIO> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    Owned<X509> certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    readPublicKey(certificate.get());
    benchmark::DoNotOptimize(certificate.get());
}

void rawFromDER(const ByteArray& der) {
    Owned<BIO> bio(BIO_new_mem_buf(der.data(), static_cast<int>(der.size())));
    Owned<X509> certificate(d2i_X509_bio(bio.get(), nullptr));
    readPublicKey(certificate.get());
    benchmark::DoNotOptimize(certificate.get());
}

std::string hex(const unsigned char* bytes, unsigned int length) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text(length * 2, '\0');
    for (unsigned int i = 0; i < length; ++i) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 0x0f];
    }
    return text;
}

std::string rawFingerprint(const X509* certificate) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    X509_digest(certificate, EVP_sha256(), digest, &length);
    return hex(digest, length);
}

std::string rawSubjectName(const X509* certificate) {
    Owned<BIO> bio(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

std::unordered_map<std::string, std::string> rawSubjectRDNs(const X509* certificate) {
    std::unordered_map<std::string, std::string> attributes;
    const X509_NAME* name = X509_get_subject_name(certificate);
    for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        const char* key = OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry)));
        unsigned char* utf8 = nullptr;
        const int length = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(entry));
        if (length >= 0) {
            attributes[key != nullptr ? key : "UNDEF"] =
                std::string(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
        }
        OPENSSL_free(utf8);
    }
    return attributes;
}

std::string rawSerialNumber(const X509* certificate) {
    BIGNUM* number = ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr);
    char* text = BN_bn2dec(number);
    std::string decimal(text);
    OPENSSL_free(text);
    BN_free(number);
    return decimal;
}

// The same OpenSSL calls the conversion to a time point needs: a difference to the epoch.
long long rawNotAfterSeconds(const X509* certificate) {
    ASN1_TIME* epoch = ASN1_UTCTIME_set(nullptr, 0);
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, epoch, X509_get0_notAfter(certificate));
    ASN1_TIME_free(epoch);
    return static_cast<long long>(days) * 86400 + seconds;
}

void registerLoading() {
    const Bundle& bundle = inputs().bundle;
    const std::string count = std::to_string(bundle.accepted.size());

    registerPair(
        {"X509Certificate_PEM_bundle",
         "X509Certificate from PEM text (each of " + count + " bundle certs)", 1.15},
        [&bundle](benchmark::State& state) {
            loop(state, [&bundle] {
                for (const std::string& pem : bundle.acceptedPEM) rawFromPEM(pem);
            });
        },
        [&bundle](benchmark::State& state) {
            loop(state, [&bundle] {
                for (const std::string& pem : bundle.acceptedPEM) {
                    fc::X509Certificate certificate(pem);
                    benchmark::DoNotOptimize(certificate);
                }
            });
        });

    registerPair(
        {"X509Certificate_DER_bundle",
         "X509Certificate from DER bytes (each of " + count + " bundle certs)", 1.15},
        [&bundle](benchmark::State& state) {
            loop(state, [&bundle] {
                for (const ByteArray& der : bundle.acceptedDER) rawFromDER(der);
            });
        },
        [&bundle](benchmark::State& state) {
            loop(state, [&bundle] {
                for (const ByteArray& der : bundle.acceptedDER) {
                    fc::X509Certificate certificate(der);
                    benchmark::DoNotOptimize(certificate);
                }
            });
        });

    for (const PKI* pki : {&inputs().rsa, &inputs().ec}) {
        const std::string pem = toPEM(pki->leaf.get());
        const ByteArray der = toDER(pki->leaf.get());
        const std::string key = pki == &inputs().rsa ? "rsa" : "p256";
        registerPair(
            {"X509Certificate_PEM_leaf_" + key,
             "X509Certificate from PEM text (" + pki->name + " leaf)", 1.15},
            [pem](benchmark::State& state) { loop(state, [&pem] { rawFromPEM(pem); }); },
            [pem](benchmark::State& state) {
                loop(state, [&pem] {
                    fc::X509Certificate certificate(pem);
                    benchmark::DoNotOptimize(certificate);
                });
            });
        registerPair(
            {"X509Certificate_DER_leaf_" + key,
             "X509Certificate from DER bytes (" + pki->name + " leaf)", 1.15},
            [der](benchmark::State& state) { loop(state, [&der] { rawFromDER(der); }); },
            [der](benchmark::State& state) {
                loop(state, [&der] {
                    fc::X509Certificate certificate(der);
                    benchmark::DoNotOptimize(certificate);
                });
            });
    }
}

// Accessors on the RSA leaf. The library side reads a loaded X509Certificate, the raw side the
// X509 it was loaded from; each first checks that both give the same answer.
void registerAccessors() {
    X509* leaf = inputs().rsa.leaf.get();
    const std::string leafPEM = toPEM(leaf);

    registerPair(
        {"getAsBytes", "getAsBytes (vs i2d_X509)", 1.3},
        [leaf](benchmark::State& state) {
            loop(state, [leaf] {
                unsigned char* der = nullptr;
                const int length = i2d_X509(leaf, &der);
                benchmark::DoNotOptimize(length);
                benchmark::DoNotOptimize(der);
                OPENSSL_free(der);
            });
        },
        [leaf, leafPEM](benchmark::State& state) {
            const fc::X509Certificate certificate(leafPEM);
            if (!require(state, certificate.getAsBytes() == toDER(leaf), "DER differs")) return;
            loop(state, [&certificate] { benchmark::DoNotOptimize(certificate.getAsBytes()); });
        });

    registerPair(
        {"getAsPEMString", "getAsPEMString (vs PEM_write_bio_X509)", 1.3},
        [leaf](benchmark::State& state) {
            loop(state, [leaf] {
                Owned<BIO> bio(BIO_new(BIO_s_mem()));
                PEM_write_bio_X509(bio.get(), leaf);
                char* data = nullptr;
                const long length = BIO_get_mem_data(bio.get(), &data);
                std::string pem(data, static_cast<std::size_t>(length));
                benchmark::DoNotOptimize(pem);
            });
        },
        [leafPEM](benchmark::State& state) {
            const fc::X509Certificate certificate(leafPEM);
            loop(state, [&certificate] { benchmark::DoNotOptimize(certificate.getAsPEMString()); });
        });

    registerPair(
        {"getSHA256Fingerprint", "getSHA256Fingerprint (vs X509_digest + hex)", 1.3},
        [leaf](benchmark::State& state) {
            loop(state, [leaf] { benchmark::DoNotOptimize(rawFingerprint(leaf)); });
        },
        [leaf, leafPEM](benchmark::State& state) {
            const fc::X509Certificate certificate(leafPEM);
            if (!require(state, certificate.getSHA256Fingerprint() == rawFingerprint(leaf),
                         "fingerprints differ")) {
                return;
            }
            loop(state,
                 [&certificate] { benchmark::DoNotOptimize(certificate.getSHA256Fingerprint()); });
        });

    registerPair(
        {"operator_equal", "operator== (vs 2 x X509_digest + hex)", 1.3},
        [leaf](benchmark::State& state) {
            // Two objects holding the same certificate, as on the library side.
            Owned<X509> other(X509_dup(leaf));
            X509* second = other.get();
            loop(state, [leaf, second] {
                benchmark::DoNotOptimize(rawFingerprint(leaf) == rawFingerprint(second));
            });
        },
        [leafPEM](benchmark::State& state) {
            const fc::X509Certificate one(leafPEM);
            const fc::X509Certificate two(leafPEM);
            if (!require(state, one == two, "equal certificates compare unequal")) return;
            loop(state, [&one, &two] { benchmark::DoNotOptimize(one == two); });
        });

    registerPair(
        {"getSubjectName", "getSubjectName (vs X509_NAME_print_ex RFC 2253)", 1.3},
        [leaf](benchmark::State& state) {
            loop(state, [leaf] { benchmark::DoNotOptimize(rawSubjectName(leaf)); });
        },
        [leaf, leafPEM](benchmark::State& state) {
            const fc::X509Certificate certificate(leafPEM);
            if (!require(state, certificate.getSubjectName() == rawSubjectName(leaf),
                         "subject names differ")) {
                return;
            }
            loop(state, [&certificate] { benchmark::DoNotOptimize(certificate.getSubjectName()); });
        });

    registerPair(
        {"getSubjectNameAsRDNs", "getSubjectNameAsRDNs (vs entries + ASN1_STRING_to_UTF8)", 1.3},
        [leaf](benchmark::State& state) {
            loop(state, [leaf] { benchmark::DoNotOptimize(rawSubjectRDNs(leaf)); });
        },
        [leaf, leafPEM](benchmark::State& state) {
            const fc::X509Certificate certificate(leafPEM);
            if (!require(state, certificate.getSubjectNameAsRDNs() == rawSubjectRDNs(leaf),
                         "attributes differ")) {
                return;
            }
            loop(state,
                 [&certificate] { benchmark::DoNotOptimize(certificate.getSubjectNameAsRDNs()); });
        });

    registerPair(
        {"getSerialNumber", "getSerialNumber (vs ASN1_INTEGER_to_BN + BN_bn2dec)", 1.3},
        [leaf](benchmark::State& state) {
            loop(state, [leaf] { benchmark::DoNotOptimize(rawSerialNumber(leaf)); });
        },
        [leaf, leafPEM](benchmark::State& state) {
            const fc::X509Certificate certificate(leafPEM);
            if (!require(state, certificate.getSerialNumber() == rawSerialNumber(leaf),
                         "serial numbers differ")) {
                return;
            }
            loop(state,
                 [&certificate] { benchmark::DoNotOptimize(certificate.getSerialNumber()); });
        });

    registerPair(
        {"getValidNotAfterTimePoint", "getValidNotAfterTimePoint (vs ASN1_TIME_diff to epoch)",
         1.3},
        [leaf](benchmark::State& state) {
            loop(state, [leaf] { benchmark::DoNotOptimize(rawNotAfterSeconds(leaf)); });
        },
        [leaf, leafPEM](benchmark::State& state) {
            const fc::X509Certificate certificate(leafPEM);
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                                     certificate.getValidNotAfterTimePoint().time_since_epoch())
                                     .count();
            if (!require(state, seconds == rawNotAfterSeconds(leaf), "times differ")) return;
            loop(state, [&certificate] {
                benchmark::DoNotOptimize(certificate.getValidNotAfterTimePoint());
            });
        });
}

}  // namespace

void registerCertificateBenchmarks() {
    registerLoading();
    registerAccessors();
}

}  // namespace bench
