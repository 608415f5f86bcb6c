// What every benchmark program shares: OpenSSL owners, the inputs made at start-up (the machine's
// trust bundle, two test PKIs, PKCS#12 and PKCS#7 containers), and the registration of a row as a
// pair of benchmarks, raw OpenSSL and library, over the same inputs.
#pragma once

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#if defined(__has_include)
#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define FOUNDATION_BENCH_CALLGRIND 1
#endif
#endif

namespace bench {

using foundation::certificates::ByteArray;

// The library's fixed verification flags: strict, proxy certificates, the anchor's
// self-signature, trusted first.
constexpr unsigned long kVerifyFlags = 0xC060;

// Nothing forgiven, no revocation: the options of a plain validation.
const foundation::certificates::CertificateValidationOptions& strictOptions();

// Validates once and fails the benchmark unless the chain is valid, then times validations.
void timeValidations(benchmark::State& state, const foundation::certificates::X509Certificate& leaf,
                     const foundation::certificates::X509CertificateChain& chain,
                     const foundation::certificates::CertificateValidationOptions& options,
                     const foundation::certificates::TrustStore& store);

// The signature cache's room when nobody set it.
constexpr std::size_t kSignatureCacheDefaultCapacity = 16384;

// One pointer wide owners, so the raw side pays nothing a C programmer would not.
template <typename T>
struct Free;
#define BENCH_FREE(Type, function)                      \
    template <>                                         \
    struct Free<Type> {                                 \
        void operator()(Type* p) const { function(p); } \
    };
BENCH_FREE(BIO, BIO_free)
BENCH_FREE(EVP_PKEY, EVP_PKEY_free)
BENCH_FREE(PKCS12, PKCS12_free)
BENCH_FREE(PKCS7, PKCS7_free)
BENCH_FREE(X509, X509_free)
BENCH_FREE(X509_STORE, X509_STORE_free)
BENCH_FREE(X509_STORE_CTX, X509_STORE_CTX_free)
BENCH_FREE(X509_CRL, X509_CRL_free)
#undef BENCH_FREE

template <typename T>
using Owned = std::unique_ptr<T, Free<T>>;

struct X509StackFree {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
using X509Stack = std::unique_ptr<STACK_OF(X509), X509StackFree>;

// A new stack holding its own reference to each certificate.
X509Stack makeStack(const std::vector<X509*>& certificates);

std::string toPEM(const X509* certificate);
ByteArray toDER(const X509* certificate);

// A root, an intermediate and a leaf, each with its key. The leaf can sign TLS, code and mail.
// The leaf and the intermediate name their revocation lists' URLs, which nothing serves; the
// lists (one unrelated entry each) are made beside them.
struct PKI {
    std::string name;  // "RSA-2048" or "P-256"
    Owned<EVP_PKEY> rootKey, intermediateKey, leafKey;
    Owned<X509> root, intermediate, leaf;
    std::string leafListUrl, intermediateListUrl;
    Owned<X509_CRL> leafList;          // by the intermediate
    Owned<X509_CRL> intermediateList;  // by the root
};

ByteArray toDER(const X509_CRL* list);

// The machine's trust bundle (SSL_CERT_FILE, else OpenSSL's default file).
struct Bundle {
    std::string path;
    std::string text;              // the file as read
    std::vector<Owned<X509>> all;  // every certificate in it
    std::vector<X509*> accepted;   // borrowed from `all`: keys the library takes
    std::string acceptedText;      // the accepted ones as PEM, one after the other
    std::vector<std::string> acceptedPEM;
    std::vector<ByteArray> acceptedDER;
};

enum class Role { Root, Intermediate, Leaf };

// "RSA-2048", "RSA-4096", "P-256", "P-384".
Owned<EVP_PKEY> makeKey(const std::string& kind);

// A root, an intermediate and a leaf with keys of the given kinds, valid for a year.
PKI makePKI(const std::string& name, const std::string& rootKey, const std::string& intermediateKey,
            const std::string& leafKey);

// Another leaf of the PKI: same key and names, its own serial number and signature.
Owned<X509> makeLeaf(const PKI& pki, long serial);

Bundle readBundle(const std::string& path);
std::string defaultBundlePath();

// DER PKCS#12 of the PKI's leaf, its key and the CA certificates. Legacy: 3DES key bag, 40-bit
// RC2 certificate bag, SHA-1 MAC (needs the legacy provider loaded).
ByteArray makePKCS12(const PKI& pki, const std::string& passphrase, bool legacy);

// DER PKCS#7 signed-data with the content attached, signed by the PKI's leaf, carrying the
// leaf and the intermediate.
ByteArray makeSignedPKCS7(const PKI& pki, std::size_t contentSize);

// Everything the benchmarks read, made once in main before any benchmark runs.
struct Inputs {
    PKI rsa;
    PKI ec;
    Bundle bundle;
    // The test root followed by the whole real bundle; SSL_CERT_FILE points at it, so the
    // platform's roots include the test root.
    std::string combinedBundlePath;
};

// Set up by main; valid while benchmarks run.
const Inputs& inputs();
void createInputs(const std::string& workDirectory);
void destroyInputs();

// One table row: a raw OpenSSL benchmark and a library benchmark of the same work, named
// "<id>/raw" and "<id>/lib". The label and the target ratio travel in the JSON output.
struct Row {
    std::string id;
    std::string label;
    double target;
};

using Body = std::function<void(benchmark::State&)>;

struct PairOptions {
    // Fixed iterations per repetition (0: let the library decide).
    benchmark::IterationCount iterations = 0;
    // Both sides run on this many threads at once (0: one, timed by CPU). With threads the row
    // is timed by the wall clock: waiting for a lock costs no CPU but does cost throughput.
    int threads = 0;
};

void registerPair(const Row& row, Body raw, Body library, PairOptions options = {});

// Runs the timed loop. Under callgrind, collection is on only while the loop runs, so a profile
// shows the operation and nothing of the set-up.
template <typename Operation>
void loop(benchmark::State& state, Operation&& operation) {
#ifdef FOUNDATION_BENCH_CALLGRIND
    CALLGRIND_TOGGLE_COLLECT;
#endif
    for (auto _ : state) operation();
#ifdef FOUNDATION_BENCH_CALLGRIND
    CALLGRIND_TOGGLE_COLLECT;
#endif
}

// Marks the run as failed when the two sides would not do the same work.
bool require(benchmark::State& state, bool condition, const std::string& message);

void registerCertificateBenchmarks();
void registerStoreBenchmarks();
void registerContainerBenchmarks();
void registerSignatureCacheBenchmarks();
void registerRevocationBenchmarks();
void registerPolicyBenchmarks();

}  // namespace bench
