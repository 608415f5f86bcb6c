// The signature cache may only make validation faster. Every chain here is validated with the
// cache off, cold and warm, and everything the outcome exposes must agree; below the library,
// the rewritten last verification step must call the verify callback exactly as OpenSSL's own.
#include "ChainSignatureVerification.hpp"
#include "OpenSSLPtr.hpp"
#include "support/Pkits.hpp"
#include "support/Stress.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestHttpServers.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <functional>
#include <ostream>
#include <tuple>

namespace fc = foundation::certificates;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Options = fc::CertificateValidationOptions;
using Status = fc::CertificateChainStatus;

namespace {

constexpr char kServer[] = "127.0.0.100";
constexpr std::size_t kDefaultCapacity = 16384;
constexpr unsigned long kLibraryFlags = X509_V_FLAG_X509_STRICT | X509_V_FLAG_ALLOW_PROXY_CERTS |
                                        X509_V_FLAG_CHECK_SS_SIGNATURE | X509_V_FLAG_TRUSTED_FIRST;
constexpr unsigned long kRevocationFlags = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;

Options options(bool selfSigned, bool expired, bool revoked,
                Options::CheckCRL check = Options::CheckCRL::None,
                Options::DownloadCRL download = Options::DownloadCRL::No) {
    return Options(static_cast<Options::AllowSelfSignedCertificate>(selfSigned),
                   static_cast<Options::AllowExpiredCertificate>(expired),
                   static_cast<Options::AllowRevokedCertificate>(revoked), check, download);
}

std::string subjectOf(const X509* certificate) {
    if (certificate == nullptr) return "(none)";
    char buffer[256];
    return X509_NAME_oneline(X509_get_subject_name(certificate), buffer, sizeof buffer);
}

// ---- Everything a validation shows its caller ----

struct Outcome {
    std::string thrown;  // what() of an exception; the rest is then unset
    Status status = Status::Valid;
    std::string text;
    fc::CertificateRevocationResults::RevocationStatus revocation{};
    std::string revocationDate;
    std::string revokedSerial;

    auto tied() const {
        return std::tie(thrown, status, text, revocation, revocationDate, revokedSerial);
    }
    bool operator==(const Outcome& other) const { return tied() == other.tied(); }
};

std::ostream& operator<<(std::ostream& out, const Outcome& o) {
    if (!o.thrown.empty()) return out << "throws \"" << o.thrown << '"';
    return out << "status " << static_cast<int>(o.status) << ", text \"" << o.text
               << "\", revocation " << static_cast<int>(o.revocation) << " \"" << o.revocationDate
               << "\" \"" << o.revokedSerial << '"';
}

Outcome validate(const X509Certificate& leaf, const X509CertificateChain& chain, const Options& o,
                 const fc::TrustStore& store) {
    Outcome outcome;
    try {
        const fc::CertificateValidationResults results = leaf.validateCertificate(chain, o, store);
        const fc::CertificateRevocationResults revocation =
            results.getCertificateRevocationResults();
        outcome.status = results.getCertificateChainStatus();
        outcome.text = results.getValidationErrorString();
        outcome.revocation = revocation.getRevocationStatus();
        outcome.revocationDate = revocation.getRevocationDateString();
        outcome.revokedSerial = revocation.getRevokedSerialNumberString();
    } catch (const std::exception& e) {
        outcome.thrown = e.what();
    }
    return outcome;
}

// The anchor getRootCACertificate finds, or its exception.
std::string rootOf(const X509Certificate& leaf, const X509CertificateChain& chain,
                   const fc::TrustStore& store) {
    try {
        return leaf.getRootCACertificate(chain, store).getAsPEMString();
    } catch (const std::exception& e) {
        return std::string("throws: ") + e.what();
    }
}

std::uint64_t misses() { return fc::getSignatureCacheStatistics().misses; }

// Runs `run` with the cache off, then emptied (cold), then again (warm); all three must agree.
// Returns the outcome and the signatures the warm run had to verify.
template <typename Run>
auto expectSameOffColdWarm(Run run) {
    fc::setSignatureCacheCapacity(0);
    const auto off = run();
    fc::setSignatureCacheCapacity(kDefaultCapacity);
    const auto cold = run();
    const std::uint64_t before = misses();
    const auto warm = run();
    const std::uint64_t warmMisses = misses() - before;
    EXPECT_EQ(cold, off) << "cold";
    EXPECT_EQ(warm, off) << "warm";
    return std::pair(off, warmMisses);
}

// ---- The verify callback's view, below the library ----

struct Recording {
    struct Call {
        int ok, error, depth;
        X509* current;
        bool operator==(const Call& o) const {
            return std::tie(ok, error, depth, current) ==
                   std::tie(o.ok, o.error, o.depth, o.current);
        }
    };
    bool forgiveAll = false;
    std::vector<Call> calls;
    int returned = 0, error = 0, depth = 0, chainLength = 0;
    X509* current = nullptr;
    std::vector<unsigned long> queuedErrors;

    bool operator==(const Recording& o) const {
        return std::tie(calls, returned, error, depth, current, chainLength, queuedErrors) ==
               std::tie(o.calls, o.returned, o.error, o.depth, o.current, o.chainLength,
                        o.queuedErrors);
    }
};

std::ostream& operator<<(std::ostream& out, const Recording& r) {
    for (const Recording::Call& c : r.calls) {
        out << "\n  cb(" << c.ok << ") error " << c.error << " depth " << c.depth << " "
            << subjectOf(c.current);
    }
    out << "\n  returned " << r.returned << ", error " << r.error << " at " << r.depth << " "
        << subjectOf(r.current) << ", chain of " << r.chainLength << ", queued";
    for (const unsigned long e : r.queuedErrors) out << ' ' << std::hex << e << std::dec;
    return out;
}

int recordingCallback(int ok, X509_STORE_CTX* context) {
    auto* recording = static_cast<Recording*>(X509_STORE_CTX_get_ex_data(context, 0));
    recording->calls.push_back({ok, X509_STORE_CTX_get_error(context),
                                X509_STORE_CTX_get_error_depth(context),
                                X509_STORE_CTX_get_current_cert(context)});
    return recording->forgiveAll ? 1 : ok;
}

struct RawInput {
    X509_STORE* store;
    X509* leaf;
    STACK_OF(X509) * untrusted;
    unsigned long flags;
    std::optional<time_t> at;
};

Recording rawVerify(const RawInput& in, bool hook, bool forgiveAll) {
    ERR_clear_error();
    Recording recording;
    recording.forgiveAll = forgiveAll;
    const fc::detail::OpenSSLPtr<X509_STORE_CTX> context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), in.store, in.leaf, in.untrusted);
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context.get());
    X509_VERIFY_PARAM_set_flags(param, in.flags);
    if (in.at) X509_VERIFY_PARAM_set_time(param, *in.at);
    X509_STORE_CTX_set_verify_cb(context.get(), recordingCallback);
    X509_STORE_CTX_set_ex_data(context.get(), 0, &recording);
    if (hook) X509_STORE_CTX_set_verify(context.get(), fc::detail::verifyChainSignaturesAndTimes);
    recording.returned = X509_verify_cert(context.get());
    recording.error = X509_STORE_CTX_get_error(context.get());
    recording.depth = X509_STORE_CTX_get_error_depth(context.get());
    recording.current = X509_STORE_CTX_get_current_cert(context.get());
    recording.chainLength = sk_X509_num(X509_STORE_CTX_get0_chain(context.get()));
    for (unsigned long e; (e = ERR_get_error()) != 0;) recording.queuedErrors.push_back(e);
    return recording;
}

// OpenSSL's step against ours with the cache off, cold and warm; once with a callback that
// stops at the first error, once with one that forgives everything and so reaches every check.
void expectStepMatchesOpenSSL(const RawInput& in) {
    // OpenSSL reads each certificate's extensions once, and queues their errors only then.
    rawVerify(in, false, true);
    for (const bool forgiveAll : {false, true}) {
        SCOPED_TRACE(forgiveAll ? "forgiving every error" : "stopping at the first error");
        const Recording openssl = rawVerify(in, false, forgiveAll);
        expectSameOffColdWarm([&] {
            const Recording ours = rawVerify(in, true, forgiveAll);
            EXPECT_EQ(ours, openssl);
            return ours;
        });
    }
}

// ---- Generated chains with a fault at each depth ----

using Extensions = std::vector<std::pair<int, std::string>>;

// Roots, intermediates and leaves of one key kind, sound and faulty. The faulty ones keep the
// sound one's name and key, so any of them chains with any other. Every certificate names its
// revocation list on kServer.
struct FaultyPKI {
    explicit FaultyPKI(testsupport::KeyKind kind)
        : keys(testsupport::pkiOf(kind)), prefix(testsupport::keyKindName(kind)) {}

    const testsupport::TestPKI& keys;
    std::string prefix;

    enum class Level { Root, Intermediate, Leaf };
    struct Shape {
        long notBefore = -3600;
        long notAfter = 30 * testsupport::kDay;
        EVP_PKEY* signer = nullptr;  // the issuer's key unless set
        std::string serial = "10";
        Extensions extensions;
        bool selfSigned = false;  // a leaf that is its own issuer
    };

    fc::X509UPtr make(Level level, Shape shape) const {
        testsupport::CertificateRecipe recipe;
        const bool leaf = level == Level::Leaf;
        recipe.subject = {{"O", prefix},
                          {"CN", level == Level::Root           ? "Root"
                                 : level == Level::Intermediate ? "Intermediate"
                                                                : "leaf.example.test"}};
        recipe.key = level == Level::Root           ? keys.rootKey.get()
                     : level == Level::Intermediate ? keys.intermediateKey.get()
                                                    : keys.leafKey.get();
        if (level == Level::Intermediate) {
            recipe.issuer = sound(Level::Root);
            recipe.issuerKey = keys.rootKey.get();
        } else if (leaf && !shape.selfSigned) {
            recipe.issuer = sound(Level::Intermediate);
            recipe.issuerKey = keys.intermediateKey.get();
        }
        if (shape.signer != nullptr) recipe.issuerKey = shape.signer;
        recipe.ca = !leaf;
        recipe.serialHex = shape.serial;
        recipe.notBeforeOffset = shape.notBefore;
        recipe.notAfterOffset = shape.notAfter;
        recipe.extensions = std::move(shape.extensions);
        if (leaf) recipe.extensions.emplace_back(NID_subject_alt_name, "DNS:leaf.example.test");
        if (level != Level::Root) {
            recipe.extensions.emplace_back(NID_crl_distribution_points,
                                           std::string("URI:http://") + kServer + "/" + prefix +
                                               (leaf ? "-leaf.crl" : "-intermediate.crl"));
        }
        return testsupport::makeCertificate(recipe);
    }

    X509* sound(Level level) const {
        return level == Level::Root ? root.get() : intermediate.get();
    }

    fc::X509UPtr root = make(Level::Root, {});
    fc::X509UPtr intermediate = make(Level::Intermediate, {});
};

constexpr long kDay = testsupport::kDay;

struct ChainCase {
    std::string name;
    X509* leaf;
    std::vector<X509*> intermediates;
    X509* anchor;
};

// The certificates behind the cases, one set per key kind, made once.
struct Chains {
    using Level = FaultyPKI::Level;
    using Shape = FaultyPKI::Shape;

    explicit Chains(testsupport::KeyKind kind) : pki(kind) {
        EVP_PKEY* rootKey = pki.keys.rootKey.get();
        EVP_PKEY* leafKey = pki.keys.leafKey.get();
        const auto add = [this](Level level, Shape shape) {
            owned.push_back(pki.make(level, std::move(shape)));
            return owned.back().get();
        };
        X509* root = pki.root.get();
        X509* intermediate = pki.intermediate.get();
        X509* leaf = add(Level::Leaf, {});
        testsupport::CertificateRecipe other;
        other.subject = {{"CN", "Other Root"}};
        other.key = leafKey;
        other.ca = true;
        owned.push_back(testsupport::makeCertificate(other));
        X509* otherRoot = owned.back().get();

        Shape expired;
        expired.notBefore = -10 * kDay;
        expired.notAfter = -kDay;
        Shape future;
        future.notBefore = kDay;
        future.notAfter = 10 * kDay;
        const auto forgedBy = [](EVP_PKEY* key, bool selfSigned = false) {
            Shape shape;
            shape.signer = key;
            shape.selfSigned = selfSigned;
            return shape;
        };
        Shape revoked;
        revoked.serial = "666";
        Shape noCertSign;
        noCertSign.extensions = {{NID_key_usage, "critical,cRLSign"}};
        Shape selfSigned;
        selfSigned.selfSigned = true;

        X509* expiredLeaf = add(Level::Leaf, expired);
        X509* futureLeaf = add(Level::Leaf, future);
        X509* forgedLeaf = add(Level::Leaf, forgedBy(rootKey));
        X509* selfSignedLeaf = add(Level::Leaf, selfSigned);
        X509* forgedSelfSignedLeaf = add(Level::Leaf, forgedBy(rootKey, true));
        X509* expiredIntermediate = add(Level::Intermediate, expired);
        X509* forgedIntermediate = add(Level::Intermediate, forgedBy(leafKey));
        X509* expiredRoot = add(Level::Root, expired);
        X509* forgedRoot = add(Level::Root, forgedBy(leafKey));

        cases = {
            {"sound", leaf, {intermediate}, root},
            {"no intermediate", leaf, {}, root},
            {"leaf expired", expiredLeaf, {intermediate}, root},
            {"leaf not yet valid", futureLeaf, {intermediate}, root},
            {"leaf forged", forgedLeaf, {intermediate}, root},
            {"leaf revoked", add(Level::Leaf, revoked), {intermediate}, root},
            {"intermediate expired", leaf, {expiredIntermediate}, root},
            {"intermediate not yet valid", leaf, {add(Level::Intermediate, future)}, root},
            {"intermediate forged", leaf, {forgedIntermediate}, root},
            {"intermediate revoked", leaf, {add(Level::Intermediate, revoked)}, root},
            {"intermediate may not sign certificates",
             leaf,
             {add(Level::Intermediate, noCertSign)},
             root},
            {"root expired", leaf, {intermediate}, expiredRoot},
            {"root not yet valid", leaf, {intermediate}, add(Level::Root, future)},
            {"root's self-signature forged", leaf, {intermediate}, forgedRoot},
            {"self-signed leaf", selfSignedLeaf, {}, root},
            {"forged self-signed leaf", forgedSelfSignedLeaf, {}, root},
            {"trusted self-signed leaf", selfSignedLeaf, {}, selfSignedLeaf},
            {"trusted forged self-signed leaf", forgedSelfSignedLeaf, {}, forgedSelfSignedLeaf},
            {"untrusted root in the chain", leaf, {intermediate, root}, otherRoot},
            // More than one fault: which one is reported depends on the order of the checks.
            {"expired leaf under a forged intermediate", expiredLeaf, {forgedIntermediate}, root},
            {"forged leaf under an expired intermediate", forgedLeaf, {expiredIntermediate}, root},
            {"expired everywhere", expiredLeaf, {expiredIntermediate}, expiredRoot},
            {"not yet valid leaf under a forged root", futureLeaf, {intermediate}, forgedRoot},
        };
    }

    // The lists on kServer: the intermediate's revokes the leaf with serial 666, the root's the
    // intermediate with serial 666.
    std::vector<std::pair<std::string, fc::X509CRLUPtr>> lists() const {
        std::vector<std::pair<std::string, fc::X509CRLUPtr>> all;
        all.emplace_back(
            pki.prefix + "-leaf.crl",
            testsupport::makeCRL(pki.intermediate.get(), pki.keys.intermediateKey.get(), {"666"}));
        all.emplace_back(pki.prefix + "-intermediate.crl",
                         testsupport::makeCRL(pki.root.get(), pki.keys.rootKey.get(), {"666"}));
        return all;
    }

    FaultyPKI pki;
    std::vector<fc::X509UPtr> owned;
    std::vector<ChainCase> cases;
};

const std::vector<const Chains*>& allChains() {
    static const Chains rsa(testsupport::KeyKind::RSA2048);
    static const Chains ec(testsupport::KeyKind::P256);
    static const std::vector<const Chains*> all{&rsa, &ec};
    return all;
}

struct LibraryChain {
    X509Certificate leaf;
    X509CertificateChain chain;
    fc::TrustStore store;
};

LibraryChain libraryObjects(const ChainCase& c) {
    LibraryChain objects{X509Certificate(c.leaf), {}, {}};
    for (X509* intermediate : c.intermediates) {
        objects.chain.addCertificate(X509Certificate(intermediate));
    }
    objects.store.addCertificate(X509Certificate(c.anchor));
    return objects;
}

using Requirement = std::pair<std::string, std::function<Options()>>;

const std::vector<Requirement>& offlineOptions() {
    static const std::vector<Requirement> all{
        {"strict", [] { return options(false, false, false); }},
        {"self-signed allowed", [] { return options(true, false, false); }},
        {"expired allowed", [] { return options(false, true, false); }},
        {"revoked allowed", [] { return options(false, false, true); }},
        {"everything allowed", [] { return options(true, true, true); }},
        {"host name",
         [] { return options(false, false, false).withHostName("leaf.example.test"); }},
        {"other host name",
         [] { return options(true, true, false).withHostName("other.example.test"); }},
        {"e-mail address",
         [] { return options(false, true, false).withEmailAddress("user@example.test"); }},
        {"TLS server",
         [] {
             return options(false, false, false).withPurpose(fc::CertificatePurpose::TLSServer);
         }},
        {"code signing",
         [] {
             return options(false, true, false).withPurpose(fc::CertificatePurpose::CodeSigning);
         }},
        {"in twenty days",
         [] {
             return options(false, false, false)
                 .withValidationTime(std::chrono::system_clock::now() + std::chrono::hours(480));
         }},
        {"in sixty days, expired allowed",
         [] {
             return options(false, true, false)
                 .withValidationTime(std::chrono::system_clock::now() + std::chrono::hours(1440));
         }},
    };
    return all;
}

class SignatureCacheTest : public ::testing::Test {
  protected:
    void TearDown() override { fc::setSignatureCacheCapacity(kDefaultCapacity); }
};

TEST_F(SignatureCacheTest, GeneratedChainsGiveTheSameResults) {
    std::size_t validInWarm = 0;
    for (const Chains* chains : allChains()) {
        for (const ChainCase& c : chains->cases) {
            SCOPED_TRACE(chains->pki.prefix + ", " + c.name);
            const LibraryChain objects = libraryObjects(c);
            for (const auto& [name, make] : offlineOptions()) {
                SCOPED_TRACE(name);
                const Options o = make();
                const auto [outcome, warmMisses] = expectSameOffColdWarm(
                    [&] { return validate(objects.leaf, objects.chain, o, objects.store); });
                // Nothing left to verify once every signature of a sound chain is remembered.
                if (outcome.thrown.empty() && outcome.status == Status::Valid) {
                    EXPECT_EQ(warmMisses, 0u);
                    ++validInWarm;
                }
            }
            expectSameOffColdWarm(
                [&] { return rootOf(objects.leaf, objects.chain, objects.store); });
        }
    }
    EXPECT_GT(validInWarm, 0u);
}

TEST_F(SignatureCacheTest, GeneratedChainsWithRevocationGiveTheSameResults) {
    testsupport::StaticHttpServer server(kServer);
    if (!server.running()) GTEST_SKIP() << server.failure();
    std::size_t revoked = 0;
    for (const Chains* chains : allChains()) {
        for (const auto& [path, list] : chains->lists()) {
            server.put(path, testsupport::crlToDER(list.get()));
        }
        for (const ChainCase& c : chains->cases) {
            SCOPED_TRACE(chains->pki.prefix + ", " + c.name);
            const LibraryChain objects = libraryObjects(c);
            for (const Options& o : {options(false, false, false, Options::CheckCRL::LeafOnly,
                                             Options::DownloadCRL::IgnoreErrors),
                                     options(false, true, false, Options::CheckCRL::FullChain,
                                             Options::DownloadCRL::ThrowOnError)}) {
                const auto [outcome, warmMisses] = expectSameOffColdWarm(
                    [&] { return validate(objects.leaf, objects.chain, o, objects.store); });
                revoked += outcome.status == Status::Revoked;
            }
        }
    }
    // The leaf's and the intermediate's revocations were seen.
    EXPECT_GE(revoked, 4u);
}

TEST_F(SignatureCacheTest, GeneratedChainsMeetTheCallbackAsInOpenSSL) {
    for (const Chains* chains : allChains()) {
        const auto lists = chains->lists();
        for (const ChainCase& c : chains->cases) {
            SCOPED_TRACE(chains->pki.prefix + ", " + c.name);
            for (const bool withLists : {false, true}) {
                SCOPED_TRACE(withLists ? "with lists" : "without lists");
                const fc::detail::OpenSSLPtr<X509_STORE> store(X509_STORE_new());
                X509_STORE_add_cert(store.get(), c.anchor);
                if (withLists) {
                    for (const auto& list : lists)
                        X509_STORE_add_crl(store.get(), list.second.get());
                }
                fc::X509StackUPtr untrusted = fc::makeX509StackUPtr(sk_X509_new_null());
                for (X509* intermediate : c.intermediates) {
                    sk_X509_push(untrusted.get(), intermediate);
                    X509_up_ref(intermediate);
                }
                expectStepMatchesOpenSSL({store.get(), c.leaf, untrusted.get(),
                                          kLibraryFlags | (withLists ? kRevocationFlags : 0),
                                          std::nullopt});
            }
        }
    }
}

// ---- PKITS ----

class PkitsSignatureCacheTest : public ::testing::TestWithParam<testsupport::pkits::Case> {
  protected:
    void TearDown() override { fc::setSignatureCacheCapacity(kDefaultCapacity); }
};

TEST_P(PkitsSignatureCacheTest, SameResults) {
    namespace pkits = testsupport::pkits;
    const pkits::LoadedCase loaded = pkits::load(GetParam());
    if (!loaded.unsupported.empty()) GTEST_SKIP() << "not loadable: " << loaded.unsupported;
    for (const bool forgiving : {false, true}) {
        const Options o =
            options(forgiving, forgiving, false).withValidationTime(pkits::validationTime());
        expectSameOffColdWarm(
            [&] { return validate(*loaded.leaf, loaded.intermediates, o, loaded.trustAnchor); });
    }
}

// Below the library every case runs, DSA keys included, with the suite's lists and without.
TEST_P(PkitsSignatureCacheTest, CallbackAsInOpenSSL) {
    namespace pkits = testsupport::pkits;
    const pkits::Case& c = GetParam();
    const fc::X509UPtr anchor = pkits::rawCertificate(pkits::kTrustAnchor);
    const fc::X509UPtr leaf = pkits::rawCertificate(c.leaf);
    fc::X509StackUPtr untrusted = fc::makeX509StackUPtr(sk_X509_new_null());
    for (const std::string& file : c.intermediates) {
        sk_X509_push(untrusted.get(), pkits::rawCertificate(file).release());
    }
    for (const bool withLists : {false, true}) {
        SCOPED_TRACE(withLists ? "with lists" : "without lists");
        const fc::detail::OpenSSLPtr<X509_STORE> store(X509_STORE_new());
        X509_STORE_add_cert(store.get(), anchor.get());
        if (withLists) {
            for (const std::string& file : c.crls) {
                X509_STORE_add_crl(store.get(), pkits::rawCRL(file).get());
            }
        }
        expectStepMatchesOpenSSL({store.get(), leaf.get(), untrusted.get(),
                                  kLibraryFlags | (withLists ? kRevocationFlags : 0),
                                  std::chrono::system_clock::to_time_t(pkits::validationTime())});
    }
}

INSTANTIATE_TEST_SUITE_P(Pkits, PkitsSignatureCacheTest,
                         ::testing::ValuesIn(testsupport::pkits::cases()),
                         [](const ::testing::TestParamInfo<testsupport::pkits::Case>& info) {
                             std::string name = "pkits_" + info.param.id + "_" + info.param.name;
                             for (char& ch : name) {
                                 if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                             }
                             return name;
                         });

// ---- The cache's own behaviour ----

struct Delta {
    std::uint64_t hits, misses;
    std::size_t entries;
};

// What one validation of the sound RSA chain does to the statistics.
Delta validateSoundChain(const LibraryChain& objects, Status expected = Status::Valid) {
    const fc::SignatureCacheStatistics before = fc::getSignatureCacheStatistics();
    EXPECT_EQ(
        objects.leaf.validateCertificate(objects.chain, options(false, false, false), objects.store)
            .getCertificateChainStatus(),
        expected);
    const fc::SignatureCacheStatistics after = fc::getSignatureCacheStatistics();
    return {after.hits - before.hits, after.misses - before.misses, after.entries};
}

TEST_F(SignatureCacheTest, CountsHitsAndMissesAndNeverHoldsAFailure) {
    const Chains& chains = *allChains()[0];
    const LibraryChain sound = libraryObjects(chains.cases[0]);
    const LibraryChain forgedLeaf = libraryObjects(chains.cases[4]);
    fc::setSignatureCacheCapacity(0);
    fc::setSignatureCacheCapacity(kDefaultCapacity);

    // Leaf, intermediate and the anchor's self-signature.
    Delta d = validateSoundChain(sound);
    EXPECT_EQ(std::tie(d.hits, d.misses, d.entries), std::make_tuple(0u, 3u, 3u));
    d = validateSoundChain(sound);
    EXPECT_EQ(std::tie(d.hits, d.misses, d.entries), std::make_tuple(3u, 0u, 3u));

    // The forged signature is verified, and refused, every time.
    for (int i = 0; i < 3; ++i) {
        d = validateSoundChain(forgedLeaf, Status::InvalidSignature);
        EXPECT_EQ(std::tie(d.hits, d.misses, d.entries), std::make_tuple(2u, 1u, 3u));
    }
    EXPECT_EQ(fc::getSignatureCacheStatistics().capacity, kDefaultCapacity);
}

TEST_F(SignatureCacheTest, CapacityZeroTurnsTheCacheOffAndEmptiesIt) {
    const LibraryChain sound = libraryObjects(allChains()[0]->cases[0]);
    validateSoundChain(sound);
    fc::setSignatureCacheCapacity(0);
    const fc::SignatureCacheStatistics off = fc::getSignatureCacheStatistics();
    EXPECT_EQ(std::tie(off.entries, off.capacity), std::make_tuple(0u, 0u));
    const Delta d = validateSoundChain(sound);
    EXPECT_EQ(std::tie(d.hits, d.misses, d.entries), std::make_tuple(0u, 0u, 0u));
    // Back on, it starts empty.
    fc::setSignatureCacheCapacity(kDefaultCapacity);
    EXPECT_EQ(validateSoundChain(sound).misses, 3u);
}

TEST_F(SignatureCacheTest, EvictsAtCapacityAndKeepsWhatIsInUse) {
    const FaultyPKI& pki = allChains()[1]->pki;
    const X509CertificateChain chain(testsupport::toPEM(pki.intermediate.get()));
    fc::TrustStore store;
    store.addCertificate(X509Certificate(pki.root.get()));
    const auto freshLeaf = [&pki](int serial) {
        FaultyPKI::Shape shape;
        shape.serial = std::to_string(1000 + serial);
        return X509Certificate(pki.make(FaultyPKI::Level::Leaf, shape).get());
    };
    // Four entries a shard: the chain's two signatures in use, and leaves passing through.
    constexpr std::size_t kCapacity = 64;
    fc::setSignatureCacheCapacity(0);
    fc::setSignatureCacheCapacity(kCapacity);
    const X509Certificate first = freshLeaf(0);
    ASSERT_EQ(first.validateCertificate(chain, options(false, false, false), store)
                  .getCertificateChainStatus(),
              Status::Valid);
    for (int i = 1; i <= 200; ++i) {
        const X509Certificate leaf = freshLeaf(i);
        const std::uint64_t before = misses();
        ASSERT_EQ(leaf.validateCertificate(chain, options(false, false, false), store)
                      .getCertificateChainStatus(),
                  Status::Valid);
        // Only the new leaf's signature: the intermediate and the anchor were never evicted.
        EXPECT_EQ(misses() - before, 1u) << "validation " << i;
        EXPECT_LE(fc::getSignatureCacheStatistics().entries, kCapacity);
    }
    EXPECT_GT(fc::getSignatureCacheStatistics().entries, kCapacity / 2);
    // The first leaf's signature made room long ago.
    const std::uint64_t before = misses();
    first.validateCertificate(chain, options(false, false, false), store);
    EXPECT_EQ(misses() - before, 1u);

    // Shrinking evicts at once.
    fc::setSignatureCacheCapacity(16);
    EXPECT_LE(fc::getSignatureCacheStatistics().entries, 16u);
}

// Validations on several threads share the cache while its capacity keeps changing.
TEST_F(SignatureCacheTest, ConcurrencyWithCapacityChanges) {
    const Chains& chains = *allChains()[1];
    const LibraryChain sound = libraryObjects(chains.cases[0]);
    const LibraryChain forged = libraryObjects(chains.cases[8]);  // intermediate forged
    const auto validation = [](const LibraryChain& objects, Status expected) {
        return [&objects, expected] {
            return objects.leaf
                       .validateCertificate(objects.chain, options(false, false, false),
                                            objects.store)
                       .getCertificateChainStatus() == expected;
        };
    };
    std::size_t resizes = 0;
    const auto outcomes = testsupport::runStress(
        {{"sound chain", validation(sound, Status::Valid)},
         {"sound chain again", validation(sound, Status::Valid)},
         {"forged intermediate", validation(forged, Status::InvalidSignature)},
         {"capacity changes",
          [&resizes] {
              const std::size_t capacities[] = {0, 1, 8, kDefaultCapacity};
              const std::size_t capacity = capacities[resizes++ % 4];
              fc::setSignatureCacheCapacity(capacity);
              const fc::SignatureCacheStatistics s = fc::getSignatureCacheStatistics();
              return s.capacity == capacity && s.entries <= capacity;
          }}},
        std::chrono::milliseconds(1500));
    testsupport::expectHealthy(outcomes);
}

}  // namespace
