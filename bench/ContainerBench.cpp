// PKCS#12 opening and self-signed certificate generation, each beside the OpenSSL calls that do
// the same work.
//
// Key generation takes a random time (the prime search), far more than anything around it. To
// compare like with like, both sides draw from the same seeded generator, reseeded before each
// iteration from a fixed list: iteration i of either side generates the same key.
#define OPENSSL_SUPPRESS_DEPRECATED  // RAND_METHOD: the one way to seed every random draw

#include "BenchSupport.hpp"

#include <foundation/certificates/PKCS12Certificate.hpp>
#include <foundation/certificates/SelfSignedCertBuilder.hpp>

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdint>

namespace bench {

namespace {

namespace fc = foundation::certificates;

// splitmix64: fast, and plenty for prime candidates in a benchmark.
std::uint64_t randomState = 0;

std::uint64_t nextRandom() {
    std::uint64_t z = (randomState += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

int seededBytes(unsigned char* buffer, int length) {
    std::uint64_t word = 0;
    for (int i = 0; i < length; ++i) {
        if (i % 8 == 0) word = nextRandom();
        buffer[i] = static_cast<unsigned char>(word >> (8 * (i % 8)));
    }
    return 1;
}

int seededStatus() { return 1; }

const RAND_METHOD seededMethod = {nullptr, seededBytes, nullptr,
                                  nullptr, seededBytes, seededStatus};

constexpr std::array<std::uint64_t, 8> kSeeds = {11, 23, 37, 41, 53, 67, 79, 83};

// Every random draw of the process comes from the seeded generator while this lives.
class SeededRandom {
  public:
    SeededRandom() { RAND_set_rand_method(&seededMethod); }
    ~SeededRandom() { RAND_set_rand_method(RAND_OpenSSL()); }
    SeededRandom(const SeededRandom&) = delete;
    SeededRandom& operator=(const SeededRandom&) = delete;

    void reseed(std::size_t iteration) { randomState = kSeeds[iteration % kSeeds.size()]; }
};

const char kPassphrase[] = "bench passphrase";

void rawOpenPKCS12(const ByteArray& der) {
    Owned<BIO> bio(BIO_new_mem_buf(der.data(), static_cast<int>(der.size())));
    Owned<PKCS12> pkcs12(d2i_PKCS12_bio(bio.get(), nullptr));
    PKCS12_verify_mac(pkcs12.get(), kPassphrase, -1);
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    STACK_OF(X509)* cas = nullptr;
    benchmark::DoNotOptimize(PKCS12_parse(pkcs12.get(), kPassphrase, &key, &certificate, &cas));
    EVP_PKEY_free(key);
    X509_free(certificate);
    sk_X509_pop_free(cas, X509_free);
}

void registerPKCS12() {
    for (const bool legacy : {false, true}) {
        const ByteArray der = makePKCS12(inputs().rsa, kPassphrase, legacy);
        const std::string kind = legacy ? "legacy" : "default";
        registerPair(
            {"PKCS12Certificate_open_" + kind,
             "PKCS12Certificate open, " + kind +
                 (legacy ? " algorithms (3DES/RC2, SHA-1 MAC)" : " algorithms (AES-256, SHA-256)") +
                 ", RSA-2048 + 2 CA certs",
             1.1},
            [der](benchmark::State& state) { loop(state, [&der] { rawOpenPKCS12(der); }); },
            [der](benchmark::State& state) {
                if (!require(
                        state,
                        fc::PKCS12Certificate(der, kPassphrase).getCAChain().getNumCertificates() ==
                            2,
                        "the container does not open with two CA certificates")) {
                    return;
                }
                loop(state, [&der] {
                    fc::PKCS12Certificate container(der, kPassphrase);
                    benchmark::DoNotOptimize(container);
                });
            });
    }
}

void addExtension(X509* certificate, int nid, const std::string& value) {
    X509V3_CTX context{};
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

void addEntry(X509_NAME* name, const char* field, const char* value) {
    X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(value), -1, -1, 0);
}

// The certificate the builder makes by default, made with OpenSSL alone.
struct RawBuild {
    std::string subjectAltName, basicConstraints, keyUsage, extendedKeyUsage;

    std::pair<Owned<X509>, Owned<EVP_PKEY>> operator()() const {
        Owned<EVP_PKEY> key(
            EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(2048)));
        Owned<X509> certificate(X509_new());
        X509* x = certificate.get();
        X509_set_version(x, X509_VERSION_3);
        BIGNUM* random = BN_new();
        BN_rand(random, 64, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY);
        BN_to_ASN1_INTEGER(random, X509_get_serialNumber(x));
        BN_free(random);
        X509_gmtime_adj(X509_getm_notBefore(x), 0);
        X509_gmtime_adj(X509_getm_notAfter(x), 365L * 86400);
        X509_set_pubkey(x, key.get());
        X509_NAME* subject = X509_get_subject_name(x);
        addEntry(subject, "CN", "localhost");
        addEntry(subject, "C", "US");
        addEntry(subject, "ST", "Kestria");
        addEntry(subject, "L", "Dunmoor");
        addEntry(subject, "O", "Quorlin, Inc.");
        addEntry(subject, "OU", "Quorlin, Inc.");
        X509_set_issuer_name(x, subject);
        addExtension(x, NID_subject_alt_name, subjectAltName);
        addExtension(x, NID_basic_constraints, basicConstraints);
        addExtension(x, NID_key_usage, keyUsage);
        addExtension(x, NID_ext_key_usage, extendedKeyUsage);
        X509_sign(x, key.get(), EVP_sha512());
        return {std::move(certificate), std::move(key)};
    }
};

void registerBuilder() {
    const fc::SelfSignedCertBuilder defaults;
    const RawBuild rawBuild{defaults.makeSubjectAlternativeName("localhost"),
                            defaults.makeBasicConstraints(), defaults.makeKeyUsage(),
                            defaults.makeExtendedKeyUsage()};
    PairOptions options;
    options.iterations = static_cast<benchmark::IterationCount>(kSeeds.size());
    registerPair(
        {"SelfSignedCertBuilder_build",
         "SelfSignedCertBuilder::build, RSA-2048 (same seeded keys both sides)", 1.05},
        [rawBuild](benchmark::State& state) {
            SeededRandom random;
            std::size_t iteration = 0;
            loop(state, [&] {
                random.reseed(iteration++);
                benchmark::DoNotOptimize(rawBuild());
            });
        },
        [rawBuild](benchmark::State& state) {
            SeededRandom random;
            // Same seed, same key, same subject on both sides.
            random.reseed(0);
            const auto built = fc::SelfSignedCertBuilder().build();
            random.reseed(0);
            const auto raw = rawBuild();
            const fc::X509Certificate rawCertificate(toPEM(raw.first.get()));
            if (!require(state, built.first.getModulus() == rawCertificate.getModulus(),
                         "the seeded generator does not give both sides the same key") ||
                !require(state, built.first.getSubjectName() == rawCertificate.getSubjectName(),
                         "subjects differ")) {
                return;
            }
            std::size_t iteration = 0;
            loop(state, [&] {
                random.reseed(iteration++);
                benchmark::DoNotOptimize(fc::SelfSignedCertBuilder().build());
            });
        },
        options);
}

}  // namespace

void registerContainerBenchmarks() {
    registerPKCS12();
    registerBuilder();
}

}  // namespace bench
