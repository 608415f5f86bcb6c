#include "BenchSupport.hpp"

#include "BundleFiles.hpp"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace bench {

namespace {

[[noreturn]] void fail(const std::string& what) {
    char reason[256] = {};
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    throw std::runtime_error("bench set-up: " + what + " (" + reason + ")");
}

template <typename Pointer>
Pointer check(Pointer pointer, const char* what) {
    if (!pointer) fail(what);
    return pointer;
}

void checkOne(int result, const char* what) {
    if (result != 1) fail(what);
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
    X509V3_CTX context{};
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = check(X509V3_EXT_conf_nid(nullptr, &context, nid, value), value);
    const int added = X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
    checkOne(added, "adding an extension");
}

// Valid since an hour ago for a year: made at start-up, nothing expires.
Owned<X509> makeCertificate(Role role, const std::string& commonName, long serial, EVP_PKEY* key,
                            X509* issuer, EVP_PKEY* issuerKey, const std::string& listUrl = {}) {
    Owned<X509> certificate(check(X509_new(), "X509_new"));
    X509* x = certificate.get();
    checkOne(X509_set_version(x, X509_VERSION_3), "version");
    checkOne(ASN1_INTEGER_set(X509_get_serialNumber(x), serial), "serial");
    check(X509_gmtime_adj(X509_getm_notBefore(x), -3600), "notBefore");
    check(X509_gmtime_adj(X509_getm_notAfter(x), 365L * 86400), "notAfter");
    checkOne(X509_set_pubkey(x, key), "public key");

    X509_NAME* subject = X509_get_subject_name(x);
    const auto entry = [subject](const char* field, const std::string& value) {
        checkOne(X509_NAME_add_entry_by_txt(subject, field, MBSTRING_UTF8,
                                            reinterpret_cast<const unsigned char*>(value.c_str()),
                                            -1, -1, 0),
                 "name entry");
    };
    entry("C", "US");
    entry("O", "Bench Org");
    entry("OU", "Performance");
    entry("CN", commonName);
    X509* signer = issuer != nullptr ? issuer : x;
    checkOne(X509_set_issuer_name(x, X509_get_subject_name(signer)), "issuer");

    // What strict verification asks of a chain: key identifiers, critical CA constraints.
    if (role == Role::Leaf) {
        addExtension(x, signer, NID_basic_constraints, "critical,CA:FALSE");
        addExtension(x, signer, NID_key_usage, "critical,digitalSignature");
        addExtension(x, signer, NID_ext_key_usage,
                     "serverAuth,clientAuth,codeSigning,emailProtection");
        addExtension(x, signer, NID_subject_alt_name, "DNS:leaf.bench.test");
    } else {
        addExtension(x, signer, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(x, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    }
    addExtension(x, signer, NID_subject_key_identifier, "hash");
    addExtension(x, signer, NID_authority_key_identifier, "keyid:always");
    if (!listUrl.empty()) {
        addExtension(x, signer, NID_crl_distribution_points, ("URI:" + listUrl).c_str());
    }

    if (X509_sign(x, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) <= 0) fail("signing");
    return certificate;
}

// A certificate as a loader would have it. One that was just built or signed keeps no cached
// encoding, so serialising, hashing and verifying it costs more than for a parsed one; every
// certificate the benchmarks use has been parsed, on both sides.
Owned<X509> reparsed(const Owned<X509>& built) {
    unsigned char* der = nullptr;
    const int length = i2d_X509(built.get(), &der);
    if (length <= 0) fail("i2d_X509");
    const unsigned char* cursor = der;
    Owned<X509> parsed(d2i_X509(nullptr, &cursor, length));
    OPENSSL_free(der);
    return Owned<X509>(check(parsed.release(), "d2i_X509"));
}

// Valid since an hour ago for a week, revoking serial 99, as a loader would have it.
Owned<X509_CRL> makeList(X509* issuer, EVP_PKEY* issuerKey) {
    Owned<X509_CRL> list(check(X509_CRL_new(), "X509_CRL_new"));
    X509_CRL* l = list.get();
    checkOne(X509_CRL_set_version(l, 1), "version");
    checkOne(X509_CRL_set_issuer_name(l, X509_get_subject_name(issuer)), "issuer");
    const auto setTime = [l](long offset, int (*setter)(X509_CRL*, const ASN1_TIME*)) {
        ASN1_TIME* time = check(X509_gmtime_adj(nullptr, offset), "time");
        const int set = setter(l, time);
        ASN1_TIME_free(time);
        checkOne(set, "list time");
    };
    setTime(-3600, X509_CRL_set1_lastUpdate);
    setTime(7L * 86400, X509_CRL_set1_nextUpdate);
    X509_REVOKED* entry = check(X509_REVOKED_new(), "X509_REVOKED_new");
    ASN1_INTEGER* serial = ASN1_INTEGER_new();
    ASN1_TIME* date = X509_gmtime_adj(nullptr, -60);
    const bool ok = serial != nullptr && date != nullptr && ASN1_INTEGER_set(serial, 99) == 1 &&
                    X509_REVOKED_set_serialNumber(entry, serial) == 1 &&
                    X509_REVOKED_set_revocationDate(entry, date) == 1 &&
                    X509_CRL_add0_revoked(l, entry) == 1;
    ASN1_INTEGER_free(serial);
    ASN1_TIME_free(date);
    if (!ok) {
        X509_REVOKED_free(entry);
        fail("revoked entry");
    }
    if (X509_CRL_sign(l, issuerKey, EVP_sha256()) <= 0) fail("signing a list");
    const ByteArray der = toDER(l);
    const unsigned char* cursor = der.data();
    return Owned<X509_CRL>(
        check(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size())), "d2i_X509_CRL"));
}

}  // namespace

Owned<EVP_PKEY> makeKey(const std::string& kind) {
    EVP_PKEY* key = nullptr;
    if (kind.rfind("RSA-", 0) == 0) {
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA",
                                static_cast<std::size_t>(std::stoul(kind.substr(4))));
    } else {
        key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", kind.c_str());
    }
    return Owned<EVP_PKEY>(check(key, "key generation"));
}

PKI makePKI(const std::string& name, const std::string& rootKey, const std::string& intermediateKey,
            const std::string& leafKey) {
    PKI pki;
    pki.name = name;
    std::string lists = "http://crl.bench.test/";
    for (const char c : name) lists += std::isalnum(static_cast<unsigned char>(c)) ? c : '-';
    pki.leafListUrl = lists + "/intermediate.crl";
    pki.intermediateListUrl = lists + "/root.crl";
    pki.rootKey = makeKey(rootKey);
    pki.intermediateKey = makeKey(intermediateKey);
    pki.leafKey = makeKey(leafKey);
    pki.root = makeCertificate(Role::Root, "Bench Root " + pki.name, 1, pki.rootKey.get(), nullptr,
                               nullptr);
    pki.intermediate = makeCertificate(Role::Intermediate, "Bench Intermediate " + pki.name, 2,
                                       pki.intermediateKey.get(), pki.root.get(), pki.rootKey.get(),
                                       pki.intermediateListUrl);
    pki.leaf = makeLeaf(pki, 3);
    pki.root = reparsed(pki.root);
    pki.intermediate = reparsed(pki.intermediate);
    pki.leafList = makeList(pki.intermediate.get(), pki.intermediateKey.get());
    pki.intermediateList = makeList(pki.root.get(), pki.rootKey.get());
    return pki;
}

Owned<X509> makeLeaf(const PKI& pki, long serial) {
    // Its name is its host name, as a TLS server certificate's must be.
    return reparsed(makeCertificate(Role::Leaf, "leaf.bench.test", serial, pki.leafKey.get(),
                                    pki.intermediate.get(), pki.intermediateKey.get(),
                                    pki.leafListUrl));
}

namespace {

std::unique_ptr<Inputs> theInputs;

}  // namespace

X509Stack makeStack(const std::vector<X509*>& certificates) {
    X509Stack stack(check(sk_X509_new_null(), "sk_X509_new_null"));
    for (X509* certificate : certificates) {
        if (sk_X509_push(stack.get(), certificate) <= 0) fail("sk_X509_push");
        X509_up_ref(certificate);
    }
    return stack;
}

std::string toPEM(const X509* certificate) {
    Owned<BIO> bio(check(BIO_new(BIO_s_mem()), "BIO_new"));
    checkOne(PEM_write_bio_X509(bio.get(), const_cast<X509*>(certificate)), "PEM_write_bio_X509");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

ByteArray toDER(const X509* certificate) {
    unsigned char* data = nullptr;
    const int length = i2d_X509(certificate, &data);
    if (length <= 0) fail("i2d_X509");
    ByteArray der(data, data + length);
    OPENSSL_free(data);
    return der;
}

ByteArray toDER(const X509_CRL* list) {
    unsigned char* data = nullptr;
    const int length = i2d_X509_CRL(list, &data);
    if (length <= 0) fail("i2d_X509_CRL");
    ByteArray der(data, data + length);
    OPENSSL_free(data);
    return der;
}

std::string defaultBundlePath() {
    const char* fromEnvironment = std::getenv(X509_get_default_cert_file_env());
    return fromEnvironment != nullptr ? fromEnvironment : X509_get_default_cert_file();
}

Bundle readBundle(const std::string& path) {
    Bundle bundle;
    bundle.path = path;
    bundle.text = readFile(path);
    Owned<BIO> bio(check(BIO_new_mem_buf(bundle.text.data(), static_cast<int>(bundle.text.size())),
                         "BIO_new_mem_buf"));
    while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
        bundle.all.emplace_back(certificate);
    }
    ERR_clear_error();  // the end of the text
    for (const Owned<X509>& certificate : bundle.all) {
        if (!libraryAcceptsKey(certificate.get())) continue;
        bundle.accepted.push_back(certificate.get());
        bundle.acceptedPEM.push_back(toPEM(certificate.get()));
        bundle.acceptedDER.push_back(toDER(certificate.get()));
        bundle.acceptedText += bundle.acceptedPEM.back();
    }
    if (bundle.accepted.empty()) throw std::runtime_error("bench set-up: empty bundle " + path);
    return bundle;
}

ByteArray makePKCS12(const PKI& pki, const std::string& passphrase, bool legacy) {
    const X509Stack cas = makeStack({pki.intermediate.get(), pki.root.get()});
    const int keyAlgorithm = legacy ? NID_pbe_WithSHA1And3_Key_TripleDES_CBC : 0;
    const int certificateAlgorithm = legacy ? NID_pbe_WithSHA1And40BitRC2_CBC : 0;
    // Legacy containers get their SHA-1 MAC afterwards; PKCS12_create would pick SHA-256.
    Owned<PKCS12> pkcs12(
        check(PKCS12_create(passphrase.c_str(), "bench", pki.leafKey.get(), pki.leaf.get(),
                            cas.get(), keyAlgorithm, certificateAlgorithm, 0, legacy ? -1 : 0, 0),
              "PKCS12_create"));
    if (legacy) {
        checkOne(PKCS12_set_mac(pkcs12.get(), passphrase.c_str(), -1, nullptr, 0, 2048, EVP_sha1()),
                 "PKCS12_set_mac");
    }
    unsigned char* data = nullptr;
    const int length = i2d_PKCS12(pkcs12.get(), &data);
    if (length <= 0) fail("i2d_PKCS12");
    ByteArray der(data, data + length);
    OPENSSL_free(data);
    return der;
}

ByteArray makeSignedPKCS7(const PKI& pki, std::size_t contentSize) {
    std::string content(contentSize, '\0');
    for (std::size_t i = 0; i < contentSize; ++i) content[i] = static_cast<char>('a' + i % 26);
    Owned<BIO> input(check(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())),
                           "BIO_new_mem_buf"));
    const X509Stack extra = makeStack({pki.intermediate.get()});
    Owned<PKCS7> pkcs7(
        check(PKCS7_sign(pki.leaf.get(), pki.leafKey.get(), extra.get(), input.get(), PKCS7_BINARY),
              "PKCS7_sign"));
    unsigned char* data = nullptr;
    const int length = i2d_PKCS7(pkcs7.get(), &data);
    if (length <= 0) fail("i2d_PKCS7");
    ByteArray der(data, data + length);
    OPENSSL_free(data);
    return der;
}

const foundation::certificates::CertificateValidationOptions& strictOptions() {
    using Options = foundation::certificates::CertificateValidationOptions;
    static const Options options(
        Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
        Options::AllowRevokedCertificate::No, Options::CheckCRL::None, Options::DownloadCRL::No);
    return options;
}

void timeValidations(benchmark::State& state, const foundation::certificates::X509Certificate& leaf,
                     const foundation::certificates::X509CertificateChain& chain,
                     const foundation::certificates::CertificateValidationOptions& options,
                     const foundation::certificates::TrustStore& store) {
    const auto first = leaf.validateCertificate(chain, options, store);
    if (!require(state,
                 first.getCertificateChainStatus() ==
                     foundation::certificates::CertificateChainStatus::Valid,
                 "library validation fails: " + first.getValidationErrorString())) {
        return;
    }
    loop(state, [&] { benchmark::DoNotOptimize(leaf.validateCertificate(chain, options, store)); });
}

const Inputs& inputs() { return *theInputs; }

void createInputs(const std::string& workDirectory) {
    auto made = std::make_unique<Inputs>();
    made->rsa = makePKI("RSA-2048", "RSA-2048", "RSA-2048", "RSA-2048");
    made->ec = makePKI("P-256", "P-256", "P-256", "P-256");
    made->bundle = readBundle(defaultBundlePath());

    made->combinedBundlePath = workDirectory + "/roots.pem";
    {
        std::ofstream combined(made->combinedBundlePath, std::ios::binary);
        combined << toPEM(made->rsa.root.get()) << toPEM(made->ec.root.get()) << made->bundle.text;
        if (!combined) throw std::runtime_error("bench set-up: cannot write the combined bundle");
    }
    // Read by the library at each validation with an empty trust store.
    setenv(X509_get_default_cert_file_env(), made->combinedBundlePath.c_str(), 1);
    theInputs = std::move(made);
}

void destroyInputs() { theInputs.reset(); }

bool require(benchmark::State& state, bool condition, const std::string& message) {
    if (!condition) state.SkipWithError(message.c_str());
    return condition;
}

void registerPair(const Row& row, Body raw, Body library, PairOptions options) {
    const auto add = [&row, &options](const std::string& side, Body body) {
        benchmark::internal::Benchmark* benchmark = benchmark::RegisterBenchmark(
            (row.id + "/" + side).c_str(),
            [row, body, threads = options.threads](benchmark::State& state) {
                body(state);
                state.SetLabel(row.label);
                // Counters add up over threads unless told to average.
                const auto flags =
                    threads > 0 ? benchmark::Counter::kAvgThreads : benchmark::Counter::kDefaults;
                state.counters["target"] = benchmark::Counter(row.target, flags);
                if (threads > 0) state.counters["wall_clock"] = benchmark::Counter(1, flags);
            });
        benchmark->Unit(benchmark::kMicrosecond);
        if (options.threads > 0) benchmark->Threads(options.threads)->UseRealTime();
        // A profile divides by an exact count: one run of a fixed length, no estimation runs.
        const char* fixed = std::getenv("BENCH_ITERATIONS");
        if (fixed != nullptr && std::atoll(fixed) > 0) {
            benchmark->Iterations(std::atoll(fixed));
        } else if (options.iterations > 0) {
            benchmark->Iterations(options.iterations);
        }
    };
    add("raw", std::move(raw));
    add("lib", std::move(library));
}

}  // namespace bench
