// Policy checking: a PKITS path through two policy mappings, with the suite's lists supplied,
// beside OpenSSL with the same flags, the same lists on its context and the same initial policy.
#include "BenchSupport.hpp"

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <fstream>
#include <iterator>

namespace bench {

namespace {

namespace fc = foundation::certificates;
using Options = fc::CertificateValidationOptions;

// Valid Policy Mapping Test3: three CAs, policy 1 mapped to 3 and back out as policy 2.
const char* const kLeaf = "ValidPolicyMappingTest3EE.crt";
const std::vector<std::string> kCAs = {"P12Mapping1to3subsubCACert.crt",
                                       "P12Mapping1to3subCACert.crt", "P12Mapping1to3CACert.crt"};
const std::vector<std::string> kLists = {"TrustAnchorRootCRL.crl", "P12Mapping1to3CACRL.crl",
                                         "P12Mapping1to3subCACRL.crl",
                                         "P12Mapping1to3subsubCACRL.crl"};
constexpr char kAnchor[] = "TrustAnchorRootCertificate.crt";
constexpr char kPolicy2[] = "2.16.840.1.101.3.2.1.48.2";
constexpr time_t kAt = 1325376000;  // 2012-01-01, inside every window of the path
constexpr unsigned long kFlags = kVerifyFlags | X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL |
                                 X509_V_FLAG_EXTENDED_CRL_SUPPORT | X509_V_FLAG_USE_DELTAS |
                                 X509_V_FLAG_POLICY_CHECK;

ByteArray readFile(const std::string& relative) {
    const std::string path = std::string(FOUNDATION_PKITS_DIR) + "/" + relative;
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return ByteArray(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Owned<X509> certificate(const std::string& file) {
    const ByteArray der = readFile("certs/" + file);
    const unsigned char* cursor = der.data();
    return Owned<X509>(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
}

Owned<X509_CRL> list(const std::string& file) {
    const ByteArray der = readFile("crls/" + file);
    const unsigned char* cursor = der.data();
    return Owned<X509_CRL>(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size())));
}

void rawPolicyPath(benchmark::State& state) {
    Owned<X509_STORE> store(X509_STORE_new());
    const Owned<X509> anchor = certificate(kAnchor);
    X509_STORE_add_cert(store.get(), anchor.get());
    const Owned<X509> leaf = certificate(kLeaf);
    std::vector<Owned<X509>> cas;
    std::vector<X509*> untrustedCertificates{leaf.get()};
    for (const std::string& file : kCAs) {
        cas.push_back(certificate(file));
        untrustedCertificates.push_back(cas.back().get());
    }
    const X509Stack untrusted = makeStack(untrustedCertificates);
    std::vector<Owned<X509_CRL>> lists;
    for (const std::string& file : kLists) lists.push_back(list(file));
    const auto verify = [&] {
        Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
        X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), untrusted.get());
        STACK_OF(X509_CRL)* crls = sk_X509_CRL_new_null();
        for (const auto& l : lists) sk_X509_CRL_push(crls, l.get());
        X509_STORE_CTX_set0_crls(context.get(), crls);
        X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context.get());
        X509_VERIFY_PARAM_set_flags(param, kFlags);
        X509_VERIFY_PARAM_set_time(param, kAt);
        X509_VERIFY_PARAM_add0_policy(param, OBJ_txt2obj(kPolicy2, 1));
        const int verified = X509_verify_cert(context.get());
        context.reset();
        sk_X509_CRL_free(crls);
        return verified;
    };
    if (!require(state, verify() == 1, "raw verification fails")) return;
    loop(state, [&] { benchmark::DoNotOptimize(verify()); });
}

void libraryPolicyPath(benchmark::State& state, bool signatureCache) {
    fc::TrustStore store;
    store.addCertificate(fc::X509Certificate(readFile(std::string("certs/") + kAnchor)));
    const fc::X509Certificate leaf(readFile(std::string("certs/") + kLeaf));
    fc::X509CertificateChain chain;
    for (const std::string& file : kCAs) {
        chain.addCertificate(fc::X509Certificate(readFile("certs/" + file)));
    }
    std::vector<fc::CertificateRevocationList> lists;
    for (const std::string& file : kLists) lists.emplace_back(readFile("crls/" + file));
    Options options(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                    Options::AllowRevokedCertificate::No, Options::CheckCRL::FullChain,
                    Options::DownloadCRL::No);
    options.withValidationTime(std::chrono::system_clock::from_time_t(kAt))
        .withRevocationLists(std::move(lists))
        .withPolicyCheck({{kPolicy2}, false, false, false});
    const auto first = leaf.validateCertificate(chain, options, store);
    if (!require(state,
                 first.getCertificateChainStatus() == fc::CertificateChainStatus::Valid &&
                     first.getValidPolicies() == std::vector<std::string>{kPolicy2},
                 "library validation fails: " + first.getValidationErrorString())) {
        return;
    }
    if (!signatureCache) fc::setSignatureCacheCapacity(0);
    loop(state, [&] { benchmark::DoNotOptimize(leaf.validateCertificate(chain, options, store)); });
    fc::setSignatureCacheCapacity(kSignatureCacheDefaultCapacity);
}

}  // namespace

void registerPolicyBenchmarks() {
    registerPair({"validateCertificate_policy_mapping_pkits",
                  "validateCertificate with policy checking and supplied lists (PKITS 4.10.3, "
                  "vs the same flags, lists and policy)",
                  1.1},
                 rawPolicyPath, [](benchmark::State& state) { libraryPolicyPath(state, true); });
    registerPair({"validateCertificate_policy_mapping_pkits_nocache",
                  "validateCertificate with policy checking and supplied lists, signature cache "
                  "off (PKITS 4.10.3, vs the same flags, lists and policy)",
                  1.1},
                 rawPolicyPath, [](benchmark::State& state) { libraryPolicyPath(state, false); });
}

}  // namespace bench
