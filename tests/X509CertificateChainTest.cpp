#include "support/Expectations.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <functional>
#include <sstream>

namespace fc = foundation::certificates;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Certificates = std::vector<X509Certificate>;

namespace {

class ChainTest : public ::testing::Test {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const std::string rootPem = testsupport::toPEM(pki.root.get());
    const std::string intermediatePem = testsupport::toPEM(pki.intermediate.get());
    const std::string leafPem = testsupport::toPEM(pki.leaf.get());
    const X509Certificate root{rootPem}, intermediate{intermediatePem}, leaf{leafPem};
    const std::string printHeader = "Printing certificate chain.\n---------------------------\n";
};

TEST_F(ChainTest, LoadsEveryBlockInOrderWritesUnwrappedBase64AndCompares) {
    const X509CertificateChain chain("# a bundle\n" + leafPem + "comment between blocks\n" +
                                     intermediatePem + "\n\n" + rootPem + "trailing text");
    EXPECT_EQ(chain.getCertificates(), (Certificates{leaf, intermediate, root}));
    EXPECT_EQ(chain.getNumCertificates(), 3u);
    EXPECT_FALSE(chain.empty());
    EXPECT_EQ(ERR_peek_error(), 0u);

    std::istringstream stream(leafPem + rootPem);
    const X509CertificateChain two(stream);
    EXPECT_EQ(two.getCertificates(), (Certificates{leaf, root}));
    EXPECT_EQ(two.getAsString(), "-----BEGIN CERTIFICATE-----\n" + leaf.getAsString() +
                                     "\n-----END CERTIFICATE-----\n-----BEGIN CERTIFICATE-----\n" +
                                     root.getAsString() + "\n-----END CERTIFICATE-----\n");
    std::ostringstream printed, expected;
    two.print(printed);
    expected << printHeader << leaf << '\n' << root << '\n';
    EXPECT_EQ(printed.str(), expected.str());
    // Equality is element-wise and ordered.
    EXPECT_EQ(X509CertificateChain(two.getAsString()), two);
    EXPECT_NE(X509CertificateChain(rootPem + leafPem), two);
    EXPECT_NE(X509CertificateChain(leafPem), two);
    EXPECT_TRUE(two == two);
}

TEST_F(ChainTest, OneBadRecordRefusesTheWholeText) {
    const fc::ByteArray der = testsupport::toDER(pki.leaf.get());
    const std::string failed = "Error: Loading a certificate chain failed. Reason=";
    const std::string badRecord =
        "Error: Unable to parse X509 certificate inside X509 certificate chain.";
    testsupport::CertificateRecipe weak;
    weak.key = testsupport::sharedKey(testsupport::KeyKind::RSA512);
    // A revocation list is filed into its neighbour's record; alone, its record has no certificate.
    const std::string crlPem =
        testsupport::crlToPEM(testsupport::makeCRL(pki.root.get(), pki.rootKey.get()).get());
    EXPECT_EQ(X509CertificateChain(rootPem + crlPem).getCertificates(), Certificates{root});
    for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
             {"no certificates here", failed},
             {std::string(der.begin(), der.end()), failed},  // DER is no PEM at all
             {leafPem + rootPem +
                  "-----BEGIN CERTIFICATE-----\nMIIB!!!!not base64\n-----END CERTIFICATE-----\n",
              failed + "bad base64 decode"},
             {leafPem + testsupport::toPEM(testsupport::makeCertificate(weak).get()),
              badRecord + "RSA key size does not meet minimum cryptographic requirements"},
             {crlPem, badRecord + "Error: X509Certificate has no content."}}) {
        EXPECT_THROW_MSG(X509CertificateChain{text}, fc::X509CertificateChainException, message);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
    EXPECT_THROW_MSG(X509CertificateChain{std::string()}, fc::InvalidArgument,
                     "The provided certificate chain string has no content.");
    std::istringstream atEnd(leafPem);
    atEnd.setstate(std::ios_base::eofbit);
    EXPECT_THROW_MSG(X509CertificateChain{atEnd}, fc::InvalidArgument,
                     "The input certificate chain data stream is invalid.");
}

// OpenSSL queues an error while caching the extensions of a certificate that repeats one; the
// warm-up at load used to leave it for the chain loader, which took it for a parse failure.
TEST_F(ChainTest, RepeatedExtensionDoesNotFailTheChainLoader) {
    testsupport::CertificateRecipe repeated;
    repeated.key = testsupport::sharedKey(testsupport::KeyKind::P256);
    repeated.extensions = {{NID_basic_constraints, "CA:FALSE"},
                           {NID_basic_constraints, "CA:FALSE"}};
    const fc::X509UPtr parsed = testsupport::makeCertificate(repeated);
    const std::string pem = testsupport::toPEM(parsed.get());

    const X509CertificateChain chain(leafPem + pem);
    EXPECT_EQ(chain.getCertificates(), (Certificates{leaf, X509Certificate(pem)}));
    EXPECT_EQ(ERR_peek_error(), 0u);

    // Nor does it reach a caller who had errors queued.
    ERR_raise(ERR_LIB_USER, 42);
    const X509Certificate copied(parsed.get());
    EXPECT_EQ(ERR_GET_REASON(ERR_peek_error()), 42);
    EXPECT_EQ(ERR_peek_last_error(), ERR_peek_error());
    ERR_clear_error();
}

TEST_F(ChainTest, PopsTheFirstCertificateThatIsNoCA) {
    X509CertificateChain empty;
    EXPECT_THROW_MSG(empty.popLeafCertificate(), fc::X509CertificateChainException,
                     "X509CertificateChain has no content.");
    X509CertificateChain chain(rootPem + intermediatePem + leafPem);
    EXPECT_EQ(chain.popLeafCertificate(), leaf);
    EXPECT_EQ(chain.getCertificates(), (Certificates{root, intermediate}));
    EXPECT_THROW_MSG(chain.popLeafCertificate(), fc::X509CertificateChainException,
                     "Unable to find a leaf certificate in the given certificate chain");
    EXPECT_EQ(chain.getNumCertificates(), 2u);  // unchanged by the failure

    const X509Certificate otherLeaf(testsupport::ecPKI().leaf.get());
    X509CertificateChain twoLeaves(leafPem);
    twoLeaves.addCertificate(otherLeaf);
    EXPECT_EQ(twoLeaves.popLeafCertificate(), leaf);
    EXPECT_EQ(twoLeaves.getCertificates(), Certificates{otherLeaf});
}

TEST_F(ChainTest, EmptyAddCopyAndMove) {
    X509CertificateChain original;
    EXPECT_TRUE(original.empty());
    EXPECT_EQ(original.getNumCertificates(), 0u);
    EXPECT_EQ(original.getAsString(), "");
    std::ostringstream printed;
    printed << original;
    EXPECT_EQ(printed.str(), printHeader);
    EXPECT_EQ(original, X509CertificateChain());

    original.addCertificate(leaf);
    original.addCertificate(leaf);  // duplicates are kept
    EXPECT_THROW_MSG(original.addCertificate(X509Certificate()), fc::InvalidArgument,
                     "The provided certificate has no content.");
    X509CertificateChain copy(original), assigned;
    assigned = original;
    original.addCertificate(root);
    EXPECT_EQ(copy.getCertificates(), (Certificates{leaf, leaf}));
    EXPECT_EQ(assigned.getCertificates(), (Certificates{leaf, leaf}));

    X509CertificateChain moved(std::move(original));
    EXPECT_EQ(moved.getNumCertificates(), 3u);
    for (const std::function<void()>& use : std::vector<std::function<void()>>{
             [&] { original.getCertificates(); }, [&] { original.popLeafCertificate(); },
             [&] { static_cast<void>(original == moved); },
             [&] { X509CertificateChain{original}; }}) {
        EXPECT_THROW_MSG(use(), fc::X509CertificateChainException,
                         "Error: X509CertificateChain is uninitialized.");
    }
    original.addCertificate(leaf);  // adding brings it back
    EXPECT_EQ(original.getCertificates(), Certificates{leaf});
    copy = std::move(moved);  // move assignment exchanges
    EXPECT_EQ(copy.getNumCertificates(), 3u);
    EXPECT_EQ(moved.getNumCertificates(), 2u);
}

}  // namespace
