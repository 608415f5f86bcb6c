// Validating certificates against chains and trust stores, with and without revocation lists
// fetched from a real server on a loopback address.
#include "support/Expectations.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestHttpServers.hpp"
#include "support/TestKeys.hpp"
#include "support/TestTrustBundle.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>
#include <tuple>

namespace fc = foundation::certificates;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Status = fc::CertificateChainStatus;
using Options = fc::CertificateValidationOptions;
using Check = Options::CheckCRL;
using Download = Options::DownloadCRL;
using Revocation = fc::CertificateRevocationResults::RevocationStatus;

namespace {

constexpr char kServer[] = "127.0.0.31";
constexpr long kDay = testsupport::kDay;

Options options(bool selfSigned = false, bool expired = false, bool revoked = false,
                Check check = Check::None, Download download = Download::No) {
    return Options(static_cast<Options::AllowSelfSignedCertificate>(selfSigned),
                   static_cast<Options::AllowExpiredCertificate>(expired),
                   static_cast<Options::AllowRevokedCertificate>(revoked), check, download);
}

Options crl(Check check, Download download) {
    return options(false, false, false, check, download);
}

// The text for one OpenSSL error on the certificate "<name>.example.test".
std::string errorText(int code, const std::string& name, const std::string& message) {
    return "Errors present: Error code " + std::to_string(code) +
           "  at depth 0Certificate Subject Name=CN=" + name +
           ".example.test,O=Foundation Test\n. \nMessage:" + message + "\n";
}

using Extensions = std::vector<std::pair<int, std::string>>;

// Intermediates of the root's and leaves of the intermediate's, each naming its revocation list
// on kServer, made once.
struct ValidationPKI {
    const testsupport::TestPKI& base = testsupport::rsaPKI();
    X509Certificate root{base.root.get()};
    fc::TrustStore trusted = [this] {
        fc::TrustStore store;
        store.addCertificate(root);
        return store;
    }();
    fc::X509UPtr intermediateX509 = issue("Intermediate", "02", "intermediate.crl", true);
    X509CertificateChain chain{testsupport::toPEM(intermediateX509.get())};
    // Same name and key, but its own list cannot be fetched.
    X509CertificateChain unfetchable{
        testsupport::toPEM(issue("Intermediate", "12", "missing.crl", true).get())};
    X509Certificate leaf{issue("good", "1001", "leaf.crl").get()};
    X509Certificate revoked{issue("revoked", "1002", "leaf.crl").get()};
    X509Certificate staleListLeaf{issue("stale", "1003", "stale.crl").get()};
    X509Certificate forgedListLeaf{issue("forged", "1004", "forged.crl").get()};
    X509Certificate expired{issue("expired", "1005", "leaf.crl", false, -10 * kDay, -kDay).get()};
    X509Certificate notYetValid{issue("future", "1006", "leaf.crl", false, kDay, 10 * kDay).get()};
    // Names the intermediate as issuer, but the signature is the root's.
    X509Certificate badSignature{
        issue("bad-signature", "1007", "leaf.crl", false, -3600, kDay, base.rootKey.get()).get()};
    X509Certificate selfSigned = [] {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"CN", "self.example.test"}};
        recipe.key = testsupport::sharedKey(testsupport::KeyKind::P256);
        return X509Certificate(testsupport::makeCertificate(recipe).get());
    }();

    // Leaves are called "<name>.example.test".
    fc::X509UPtr issue(const std::string& name, const std::string& serial, const std::string& list,
                       bool isIntermediate = false, long notBefore = -3600, long notAfter = kDay,
                       EVP_PKEY* signer = nullptr, Extensions extensions = {}) const {
        testsupport::CertificateRecipe recipe;
        recipe.subject = {{"O", "Foundation Test"},
                          {"CN", isIntermediate ? name : name + ".example.test"}};
        recipe.key = isIntermediate ? base.intermediateKey.get() : base.leafKey.get();
        recipe.issuer = isIntermediate ? base.root.get() : intermediateX509.get();
        recipe.issuerKey = signer != nullptr ? signer
                           : isIntermediate  ? base.rootKey.get()
                                             : base.intermediateKey.get();
        recipe.ca = isIntermediate;
        recipe.serialHex = serial;
        recipe.notBeforeOffset = notBefore;
        recipe.notAfterOffset = notAfter;
        recipe.extensions = std::move(extensions);
        recipe.extensions.emplace_back(NID_crl_distribution_points,
                                       "URI:http://" + std::string(kServer) + "/" + list);
        return testsupport::makeCertificate(recipe);
    }
};

const ValidationPKI& pki() {
    static const ValidationPKI instance;
    return instance;
}

TEST(Validation, OfflineOutcomes) {
    const ValidationPKI& p = pki();
    const X509CertificateChain none, withLeaf(p.leaf.getAsPEMString() + p.chain.getAsString());
    const std::vector<std::tuple<const X509Certificate*, const X509CertificateChain*, Options,
                                 Status, std::string>>
        cases{{&p.leaf, &p.chain, options(), Status::Valid, ""},
              // A chain starting with the certificate itself gives the same result.
              {&p.leaf, &withLeaf, options(), Status::Valid, ""},
              {&p.leaf, &none, options(), Status::InvalidChain,
               errorText(20, "good", "unable to get local issuer certificate")},
              {&p.selfSigned, &none, options(), Status::SelfSigned, ""},
              {&p.selfSigned, &none, options(true), Status::Valid, ""},
              {&p.expired, &p.chain, options(), Status::Expired,
               errorText(10, "expired", "certificate has expired")},
              {&p.expired, &p.chain, options(false, true), Status::Valid, ""},
              {&p.notYetValid, &p.chain, options(false, true), Status::ValidationFailed,
               "Validation Failed. Return code=9." +
                   errorText(9, "future", "certificate is not yet valid")},
              {&p.badSignature, &p.chain, options(), Status::InvalidSignature,
               errorText(7, "bad-signature", "certificate signature failure")}};
    for (const auto& [certificate, chain, opts, status, text] : cases) {
        SCOPED_TRACE(certificate->getSubjectName());
        const auto results = certificate->validateCertificate(*chain, opts, p.trusted);
        EXPECT_EQ(results.getCertificateChainStatus(), status);
        EXPECT_EQ(results.getValidationErrorString(), text);
        EXPECT_EQ(results.getCertificateRevocationResults().getRevocationStatus(),
                  Revocation::NotRevoked);
    }
}

TEST(Validation, TrustAnchorsOfTheStoreAndThePlatform) {
    const ValidationPKI& p = pki();
    // The root of the verified chain.
    EXPECT_EQ(p.leaf.getRootCACertificate(p.chain, p.trusted), p.root);
    // Expired and self-signed chains are forgiven while looking for the anchor.
    EXPECT_EQ(p.expired.getRootCACertificate(p.chain, p.trusted), p.root);
    EXPECT_EQ(p.selfSigned.getRootCACertificate(X509CertificateChain(), p.trusted), p.selfSigned);
    EXPECT_THROW_MSG(p.leaf.getRootCACertificate(X509CertificateChain(), p.trusted),
                     fc::X509CertificateException,
                     "Error: Root CA X509Certificate has no content.");

    // An empty trust store stands for the platform's trusted certificates: the bundle named by
    // SSL_CERT_FILE here.
    testsupport::ScopedTrustBundle bundle;
    for (const auto& [anchor, status] :
         {std::pair{&p.root, Status::Valid}, std::pair{&p.selfSigned, Status::InvalidChain}}) {
        bundle.write(anchor->getAsPEMString());
        EXPECT_EQ(p.leaf.validateCertificate(p.chain, options(), fc::TrustStore())
                      .getCertificateChainStatus(),
                  status);
    }
}

TEST(ValidationOptions, SettersRefuseWhatIsNoNameOrAddress) {
    Options o = options();
    const std::string host = "\" is not a DNS host name: ";
    const std::string ip = "\" is neither IPv4 dotted-quad nor IPv6 text.";
    const std::string email = "\" is not of the form local-part@domain.";
    const std::vector<std::pair<std::function<void()>, std::string>> refused{
        {[&] { o.withHostName(""); }, "The host name \"" + host + "it is empty."},
        {[&] { o.withHostName("*.example.test"); },
         "The host name \"*.example.test" + host +
             "only letters, digits, hyphens and dots may appear."},
        {[&] { o.withHostName("www.exa mple.test"); },
         "The host name \"www.exa mple.test" + host +
             "only letters, digits, hyphens and dots may appear."},
        {[&] { o.withHostName("a..example.test"); },
         "The host name \"a..example.test" + host + "it has an empty label."},
        {[&] { o.withHostName("-a.example.test"); },
         "The host name \"-a.example.test" + host + "a label begins or ends with a hyphen."},
        {[&] { o.withHostName(std::string(64, 'a') + ".test"); },
         "The host name \"" + std::string(64, 'a') + ".test" + host +
             "a label is longer than 63 characters."},
        {[&] { o.withHostName(std::string(250, 'a').replace(50, 1, ".") + ".test"); },
         "The host name \"" + std::string(250, 'a').replace(50, 1, ".") + ".test" + host +
             "it is longer than 253 characters."},
        {[&] { o.withHostName("192.0.2.7"); },
         "The host name \"192.0.2.7" + host + "it is an IP address, which withIPAddress takes."},
        {[&] { o.withIPAddress("192.0.2"); }, "The IP address \"192.0.2" + ip},
        {[&] { o.withIPAddress("192.0.2.07"); }, "The IP address \"192.0.2.07" + ip},
        {[&] { o.withIPAddress("fe80::1%eth0"); }, "The IP address \"fe80::1%eth0" + ip},
        {[&] { o.withIPAddress("www.example.test"); }, "The IP address \"www.example.test" + ip},
        {[&] { o.withEmailAddress("user.example.test"); },
         "The e-mail address \"user.example.test" + email},
        {[&] { o.withEmailAddress("\"a b\"@example.test"); },
         "The e-mail address \"\"a b\"@example.test" + email},
        {[&] { o.withEmailAddress("user@192.0.2.7"); },
         "The e-mail address \"user@192.0.2.7" + email},
        {[&] { o.withPurpose(static_cast<fc::CertificatePurpose>(6)); },
         "Unknown certificate purpose: 6."}};
    for (const auto& [set, message] : refused) {
        EXPECT_THROW_MSG(set(), fc::InvalidArgument, message);
    }
    EXPECT_NO_THROW(o.withHostName("WWW.Example.Test.")
                        .withHostName("xn--bcher-kva.example.test")
                        .withHostName("localhost")
                        .withIPAddress("2001:db8::7")
                        .withIPAddress("::ffff:192.0.2.7")
                        .withEmailAddress("first.last+tag@example.test")
                        .withPurpose(fc::CertificatePurpose::TimeStamping));
}

using Requirement = std::function<void(Options&)>;

Requirement host(const std::string& name) {
    return [name](Options& o) { o.withHostName(name); };
}
Requirement ip(const std::string& address) {
    return [address](Options& o) { o.withIPAddress(address); };
}
Requirement email(const std::string& address) {
    return [address](Options& o) { o.withEmailAddress(address); };
}
Requirement purpose(fc::CertificatePurpose value) {
    return [value](Options& o) { o.withPurpose(value); };
}
Requirement at(std::chrono::seconds fromNow, bool allowExpired = false) {
    return [fromNow, allowExpired](Options& o) {
        o = options(false, allowExpired)
                .withValidationTime(std::chrono::system_clock::now() + fromNow);
    };
}

struct RequirementCase {
    const X509Certificate* certificate;
    const X509CertificateChain* chain;
    Requirement require;
    Status status;
    std::optional<std::string> text;  // none: not pinned
};

void expectOutcomes(const std::vector<RequirementCase>& cases) {
    const ValidationPKI& p = pki();
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const RequirementCase& c = cases[i];
        SCOPED_TRACE("case " + std::to_string(i) + ": " + c.certificate->getSubjectName());
        Options o = options();
        c.require(o);
        const auto results = c.certificate->validateCertificate(*c.chain, o, p.trusted);
        EXPECT_EQ(results.getCertificateChainStatus(), c.status);
        if (c.text) {
            EXPECT_EQ(results.getValidationErrorString(), *c.text);
        }
    }
}

TEST(ValidationRequirements, NamesMatchSubjectAltNameOnly) {
    const ValidationPKI& p = pki();
    const X509Certificate names(
        p.issue("names", "2001", "leaf.crl", false, -3600, kDay, nullptr,
                {{NID_subject_alt_name,
                  "DNS:www.example.test,DNS:*.wild.example.test,DNS:f*.partial.example.test,"
                  "IP:192.0.2.7,IP:2001:db8::7,email:user@example.test"}})
            .get());
    testsupport::CertificateRecipe withSubjectEmail;
    withSubjectEmail.subject = {{"CN", "mail.example.test"},
                                {"emailAddress", "subject@example.test"}};
    withSubjectEmail.key = p.base.leafKey.get();
    withSubjectEmail.issuer = p.intermediateX509.get();
    withSubjectEmail.issuerKey = p.base.intermediateKey.get();
    withSubjectEmail.extensions = {{NID_subject_alt_name, "DNS:mail.example.test"}};
    const X509Certificate subjectEmail(testsupport::makeCertificate(withSubjectEmail).get());

    const std::string hostMismatch = errorText(62, "names", "hostname mismatch");
    const std::string ipMismatch = errorText(64, "names", "IP address mismatch");
    const std::string emailMismatch = errorText(63, "names", "email address mismatch");
    const X509CertificateChain* chain = &p.chain;
    expectOutcomes({
        {&names, chain, host("www.example.test"), Status::Valid, ""},
        {&names, chain, host("WWW.EXAMPLE.test."), Status::Valid, ""},
        {&names, chain, host("other.example.test"), Status::NameMismatch, hostMismatch},
        // The common name is never consulted.
        {&names, chain, host("names.example.test"), Status::NameMismatch, hostMismatch},
        {&p.leaf, chain, host("good.example.test"), Status::NameMismatch, std::nullopt},
        // A wildcard stands for exactly one whole left-most label.
        {&names, chain, host("a.wild.example.test"), Status::Valid, ""},
        {&names, chain, host("a.b.wild.example.test"), Status::NameMismatch, hostMismatch},
        {&names, chain, host("wild.example.test"), Status::NameMismatch, hostMismatch},
        {&names, chain, host("foo.partial.example.test"), Status::NameMismatch, hostMismatch},
        {&names, chain, ip("192.0.2.7"), Status::Valid, ""},
        {&names, chain, ip("2001:0db8:0:0::7"), Status::Valid, ""},
        {&names, chain, ip("192.0.2.8"), Status::NameMismatch, ipMismatch},
        {&names, chain, ip("::ffff:192.0.2.7"), Status::NameMismatch, ipMismatch},
        {&names, chain, ip("2001:db8::8"), Status::NameMismatch, ipMismatch},
        // The domain compares case-insensitively, the local part exactly.
        {&names, chain, email("user@EXAMPLE.test"), Status::Valid, ""},
        {&names, chain, email("USER@example.test"), Status::NameMismatch, emailMismatch},
        {&subjectEmail, chain, email("subject@example.test"), Status::NameMismatch, std::nullopt},
        {&names, chain,
         [](Options& o) {
             o.withHostName("www.example.test")
                 .withIPAddress("192.0.2.7")
                 .withEmailAddress("user@example.test");
         },
         Status::Valid, ""},
    });
}

TEST(ValidationRequirements, PurposeCoversTheWholeChain) {
    const ValidationPKI& p = pki();
    const auto leaf = [&p](const std::string& name, const std::string& extendedUsage,
                           const std::string& usage) {
        return X509Certificate(p.issue(name, "3001", "leaf.crl", false, -3600, kDay, nullptr,
                                       {{NID_ext_key_usage, extendedUsage}, {NID_key_usage, usage}})
                                   .get());
    };
    const X509Certificate server = leaf("server", "serverAuth", "digitalSignature,keyEncipherment");
    const X509Certificate code = leaf("code", "codeSigning", "digitalSignature");
    const X509Certificate codeWithoutSignatures =
        leaf("code-nosig", "codeSigning", "keyEncipherment");
    const X509Certificate stamp =
        leaf("stamp", "critical,timeStamping", "critical,digitalSignature");
    const X509Certificate mail = leaf("mail", "emailProtection", "digitalSignature");
    // The same intermediate, restricted to TLS servers.
    const X509CertificateChain serversOnly(
        testsupport::toPEM(p.issue("Intermediate", "22", "intermediate.crl", true, -3600,
                                   1825 * kDay, nullptr, {{NID_ext_key_usage, "serverAuth"}})
                               .get()));

    using P = fc::CertificatePurpose;
    const auto mismatch = [](const std::string& name) {
        return errorText(26, name, "unsuitable certificate purpose");
    };
    const std::string atIntermediate =
        "Errors present: Error code 26  at depth 1Certificate Subject Name=CN=Intermediate,O="
        "Foundation Test\n. \nMessage:unsuitable certificate purpose\n";
    const X509CertificateChain* chain = &p.chain;
    expectOutcomes({
        {&server, chain, purpose(P::Any), Status::Valid, ""},
        {&server, chain, purpose(P::TLSServer), Status::Valid, ""},
        {&server, chain, purpose(P::TLSClient), Status::PurposeMismatch, mismatch("server")},
        {&server, chain, purpose(P::CodeSigning), Status::PurposeMismatch, mismatch("server")},
        {&server, chain, purpose(P::EmailProtection), Status::PurposeMismatch, mismatch("server")},
        {&server, chain, purpose(P::TimeStamping), Status::PurposeMismatch, mismatch("server")},
        {&code, chain, purpose(P::CodeSigning), Status::Valid, ""},
        {&code, chain, purpose(P::TLSServer), Status::PurposeMismatch, mismatch("code")},
        {&codeWithoutSignatures, chain, purpose(P::CodeSigning), Status::PurposeMismatch,
         mismatch("code-nosig")},
        {&stamp, chain, purpose(P::TimeStamping), Status::Valid, ""},
        {&mail, chain, purpose(P::EmailProtection), Status::Valid, ""},
        // Without extended key usage a leaf serves any purpose its key usage allows.
        {&p.leaf, chain, purpose(P::TLSClient), Status::Valid, ""},
        {&p.leaf, chain, purpose(P::CodeSigning), Status::Valid, ""},
        // A CA's extended key usage binds the certificates below it.
        {&server, &serversOnly, purpose(P::TLSServer), Status::Valid, ""},
        {&code, &serversOnly, purpose(P::CodeSigning), Status::PurposeMismatch, atIntermediate},
        {&mail, &serversOnly, purpose(P::EmailProtection), Status::PurposeMismatch, atIntermediate},
    });
}

TEST(ValidationRequirements, TimeJudgesTheWholeChain) {
    const ValidationPKI& p = pki();
    using std::chrono::hours;
    // notYetValid holds from tomorrow for nine days; leaf and p.chain's intermediate until
    // tomorrow, longLived's for five years.
    const X509CertificateChain longLived(testsupport::toPEM(
        p.issue("Intermediate", "23", "intermediate.crl", true, -3600, 1825 * kDay).get()));
    expectOutcomes({
        {&p.notYetValid, &longLived, at(hours(12)), Status::ValidationFailed,
         "Validation Failed. Return code=9." +
             errorText(9, "future", "certificate is not yet valid")},
        {&p.notYetValid, &longLived, at(hours(48)), Status::Valid, ""},
        {&p.notYetValid, &longLived, at(hours(24 * 11)), Status::Expired,
         errorText(10, "future", "certificate has expired")},
        {&p.leaf, &longLived, at(hours(48)), Status::Expired,
         errorText(10, "good", "certificate has expired")},
        {&p.leaf, &longLived, at(hours(48), true), Status::Valid, ""},
        {&p.leaf, &p.chain, at(hours(48)), Status::Expired,
         "Errors present: Error code 10  at depth 1Certificate Subject Name=CN=Intermediate,O="
         "Foundation Test\n. \nMessage:certificate has expired\n"},
    });
}

TEST(ValidationConcurrency, ValidationsShareAStoreAndACertificate) {
    const ValidationPKI& p = pki();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (const X509Certificate* subject : {&p.leaf, &p.expired, &p.leaf, &p.expired}) {
        threads.emplace_back([&, subject] {
            const Status expected = subject == &p.leaf ? Status::Valid : Status::Expired;
            for (int i = 0; i < 10; ++i) {
                wrong += subject->validateCertificate(p.chain, options(), p.trusted)
                             .getCertificateChainStatus() != expected;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

// The caller's own lists of ValidationPKI's certificates, made once.
struct SuppliedLists {
    const ValidationPKI& p = pki();
    X509* intermediate = p.intermediateX509.get();
    fc::CertificateRevocationList leaf =
        list({intermediate, p.base.intermediateKey.get(), {{"1002", 1700000000}}});
    fc::CertificateRevocationList stale =
        list({intermediate, p.base.intermediateKey.get(), {}, -7200, -60});
    fc::CertificateRevocationList forged = list({intermediate, p.base.rootKey.get(), {}});
    fc::CertificateRevocationList ofIntermediates =
        list({p.base.root.get(), p.base.rootKey.get(), {}});

    static fc::CertificateRevocationList list(const testsupport::CRLRecipe& recipe) {
        return fc::CertificateRevocationList(
            testsupport::crlToDER(testsupport::makeCRL(recipe).get()));
    }
};

const SuppliedLists& supplied() {
    static const SuppliedLists instance;
    return instance;
}

Options withLists(Options options, std::vector<fc::CertificateRevocationList> lists) {
    options.withRevocationLists(std::move(lists));
    return options;
}

// Offline: the caller's lists switch checking on without any download, and OpenSSL judges them.
TEST(Validation, SuppliedListsOffline) {
    const ValidationPKI& p = pki();
    const SuppliedLists& l = supplied();
    const fc::ByteArray leafListBefore = l.leaf.getAsBytes();
    const std::string unableToGetCRL = "unable to get certificate CRL";
    const std::string atIntermediate =
        "Errors present: Error code 3  at depth 1Certificate Subject Name=CN=Intermediate,O="
        "Foundation Test\n. \nMessage:" +
        unableToGetCRL + "\n";
    using Lists = std::vector<fc::CertificateRevocationList>;
    const std::vector<std::tuple<const X509Certificate*, Options, Lists, Status, std::string>>
        cases{{&p.revoked,
               crl(Check::LeafOnly, Download::No),
               {l.leaf},
               Status::Revoked,
               errorText(23, "revoked", "certificate revoked")},
              {&p.leaf, crl(Check::LeafOnly, Download::No), {l.leaf}, Status::Valid, ""},
              {&p.leaf,
               crl(Check::FullChain, Download::No),
               {l.leaf, l.ofIntermediates},
               Status::Valid,
               ""},
              // A level without a list fails the check.
              {&p.leaf,
               crl(Check::FullChain, Download::No),
               {l.leaf},
               Status::CRLError,
               atIntermediate},
              {&p.leaf,
               crl(Check::LeafOnly, Download::No),
               {l.ofIntermediates},
               Status::CRLError,
               errorText(3, "good", unableToGetCRL)},
              {&p.leaf,
               crl(Check::LeafOnly, Download::No),
               {l.stale},
               Status::CRLError,
               errorText(12, "good", "CRL has expired")},
              {&p.leaf,
               crl(Check::LeafOnly, Download::No),
               {l.forged},
               Status::CRLError,
               errorText(8, "good", "CRL signature failure")},
              // Lists change nothing where revocation is not checked.
              {&p.revoked,
               options(false, false, true, Check::LeafOnly, Download::No),
               {l.leaf},
               Status::Valid,
               ""},
              {&p.revoked, crl(Check::None, Download::No), {l.leaf}, Status::Valid, ""}};
    for (const auto& [certificate, opts, lists, status, text] : cases) {
        SCOPED_TRACE(certificate->getSubjectName() + " with " + std::to_string(lists.size()));
        const auto results =
            certificate->validateCertificate(p.chain, withLists(opts, lists), p.trusted);
        EXPECT_EQ(results.getCertificateChainStatus(), status);
        EXPECT_EQ(results.getValidationErrorString(), text);
        const auto revocation = results.getCertificateRevocationResults();
        EXPECT_EQ(revocation.getRevocationDateString(),
                  status == Status::Revoked ? "Nov 14 22:13:20 2023 GMT" : "");
        EXPECT_EQ(revocation.getRevokedSerialNumberString(),
                  status == Status::Revoked ? "4098" : "");
    }
    // The caller's lists and store are only read.
    EXPECT_EQ(l.leaf.getAsBytes(), leafListBefore);
    EXPECT_EQ(p.trusted.size(), 1u);
}

class RevocationTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server = std::make_unique<testsupport::StaticHttpServer>(kServer);
        if (!server->running()) return;
        const ValidationPKI& p = pki();
        const auto der = [](const fc::X509CRLUPtr& list) {
            return testsupport::crlToDER(list.get());
        };
        X509* intermediate = p.intermediateX509.get();
        testsupport::CRLRecipe leafList{intermediate,
                                        p.base.intermediateKey.get(),
                                        {{"1002", 1700000000}}};  // Nov 14 22:13:20 2023 GMT
        server->put("leaf.crl", der(testsupport::makeCRL(leafList)));
        leafList.nextUpdateOffset = -60;
        server->put("stale.crl", der(testsupport::makeCRL(leafList)));
        server->put("intermediate.crl",
                    der(testsupport::makeCRL(p.base.root.get(), p.base.rootKey.get())));
        server->put("forged.crl", der(testsupport::makeCRL(intermediate, p.base.rootKey.get())));
    }
    static void TearDownTestSuite() { server.reset(); }
    void SetUp() override {
        if (!server->running()) GTEST_SKIP() << server->failure();
    }
    void TearDown() override {
        EXPECT_EQ(testsupport::leftoverCrlFiles(), std::vector<std::string>{});
    }

    static inline std::unique_ptr<testsupport::StaticHttpServer> server;
};

TEST_F(RevocationTest, CheckingAndDownloading) {
    const ValidationPKI& p = pki();
    using Paths = std::vector<std::string>;
    using Requests = std::optional<Paths>;  // none: not pinned
    const Requests leafOnly = Paths{"/leaf.crl"}, both = Paths{"/leaf.crl", "/intermediate.crl"};
    const std::vector<std::tuple<const X509Certificate*, Options, Requests, Status>> cases{
        // Exactly one list for LeafOnly: the intermediate's is never requested.
        {&p.revoked, crl(Check::LeafOnly, Download::ThrowOnError), leafOnly, Status::Revoked},
        {&p.leaf, crl(Check::FullChain, Download::ThrowOnError), both, Status::Valid},
        {&p.revoked, crl(Check::FullChain, Download::IgnoreErrors), both, Status::Revoked},
        // Allowed revocation is not checked.
        {&p.revoked, options(false, false, true, Check::LeafOnly, Download::ThrowOnError),
         std::nullopt, Status::Valid},
        // Downloaded but not checked.
        {&p.revoked, crl(Check::None, Download::ThrowOnError), both, Status::Valid},
        // No download means no network and no check.
        {&p.revoked, crl(Check::FullChain, Download::No), Paths{}, Status::Valid}};
    for (const auto& [certificate, opts, requests, status] : cases) {
        const std::size_t before = server->requestedPaths().size();
        const auto results = certificate->validateCertificate(p.chain, opts, p.trusted);
        EXPECT_EQ(results.getCertificateChainStatus(), status);
        const bool revoked = status == Status::Revoked;
        EXPECT_EQ(results.getValidationErrorString(),
                  revoked ? errorText(23, "revoked", "certificate revoked") : "");
        const auto revocation = results.getCertificateRevocationResults();
        EXPECT_EQ(revocation.getRevocationStatus(),
                  revoked ? Revocation::Revoked : Revocation::NotRevoked);
        if (revoked) {
            EXPECT_EQ(revocation.getRevocationDateString(), "Nov 14 22:13:20 2023 GMT");
            EXPECT_EQ(revocation.getRevokedSerialNumberString(), "4098");
        }
        const auto all = server->requestedPaths();
        if (requests) {
            EXPECT_EQ(Paths(all.begin() + static_cast<long>(before), all.end()), *requests);
        }
    }
    EXPECT_EQ(p.trusted.size(), 1u);  // the caller's trust store never receives a list
}

// A level whose list the caller supplied is not downloaded; the others are, as always. With
// lists of the caller's, checking stays on when a download fails.
TEST_F(RevocationTest, SuppliedListsSpareDownloads) {
    const ValidationPKI& p = pki();
    const SuppliedLists& l = supplied();
    using Paths = std::vector<std::string>;
    const std::vector<
        std::tuple<const X509Certificate*, const X509CertificateChain*, Options, Paths, Status>>
        cases{{&p.revoked, &p.chain, crl(Check::LeafOnly, Download::ThrowOnError), Paths{},
               Status::Revoked},
              {&p.leaf, &p.chain, crl(Check::FullChain, Download::ThrowOnError),
               Paths{"/intermediate.crl"}, Status::Valid},
              {&p.leaf, &p.unfetchable, crl(Check::FullChain, Download::IgnoreErrors),
               Paths{"/missing.crl"}, Status::CRLError}};
    for (const auto& [certificate, chain, opts, requests, status] : cases) {
        const std::size_t before = server->requestedPaths().size();
        EXPECT_EQ(certificate->validateCertificate(*chain, withLists(opts, {l.leaf}), p.trusted)
                      .getCertificateChainStatus(),
                  status);
        const auto all = server->requestedPaths();
        EXPECT_EQ(Paths(all.begin() + static_cast<long>(before), all.end()), requests);
    }
}

// ThrowOnError throws; IgnoreErrors goes on without revocation checking.
// The lists' expiry is judged as of the validation's time too.
TEST_F(RevocationTest, ListsAreJudgedAsOfTheValidationTime) {
    const ValidationPKI& p = pki();
    const auto check = crl(Check::LeafOnly, Download::ThrowOnError);
    EXPECT_THROW_MSG(p.staleListLeaf.validateCertificate(p.chain, check, p.trusted),
                     fc::X509CertificateException,
                     "CRL Verification Error: Certificate Revocation List has expired\n");
    // Half an hour ago the list had not yet expired.
    auto then = check;
    then.withValidationTime(std::chrono::system_clock::now() - std::chrono::minutes(30));
    EXPECT_EQ(
        p.staleListLeaf.validateCertificate(p.chain, then, p.trusted).getCertificateChainStatus(),
        Status::Valid);
}

TEST_F(RevocationTest, UnusableListsSwitchCheckingOffOrThrow) {
    const ValidationPKI& p = pki();
    fc::TrustStore unrelated;
    unrelated.addCertificate(p.selfSigned);
    const std::vector<std::tuple<const X509Certificate*, const X509CertificateChain*, Check,
                                 const fc::TrustStore*, std::string, Status>>
        cases{
            {&p.revoked, &p.unfetchable, Check::FullChain, &p.trusted,
             "CRL Download Error: Unable to get Certificate Revocation List HTTP data. CRL "
             "Download Error: Response returned with status code: 404\n\n",
             Status::Valid},
            {&p.staleListLeaf, &p.chain, Check::LeafOnly, &p.trusted,
             "CRL Verification Error: Certificate Revocation List has expired\n", Status::Valid},
            {&p.forgedListLeaf, &p.chain, Check::LeafOnly, &p.trusted,
             "CRL Verification Error: Failed to verify the Certificate Revocation List "
             "signature\n",
             Status::Valid},
            // A root that cannot be found throws before verification.
            {&p.revoked, &p.chain, Check::LeafOnly, &unrelated,
             "CRL Download Error: Failed to retrieve Root CA certificate\n", Status::InvalidChain}};
    for (const auto& [certificate, chain, check, store, message, ignored] : cases) {
        EXPECT_THROW_MSG(
            certificate->validateCertificate(*chain, crl(check, Download::ThrowOnError), *store),
            fc::X509CertificateException, message);
        EXPECT_EQ(
            certificate->validateCertificate(*chain, crl(check, Download::IgnoreErrors), *store)
                .getCertificateChainStatus(),
            ignored);
    }
}

}  // namespace
