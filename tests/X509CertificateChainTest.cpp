#include "support/Expectations.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <sstream>

namespace fc = foundation::certificates;
using fc::X509Certificate;
using fc::X509CertificateChain;
using Certificates = std::vector<X509Certificate>;

namespace {

class ChainTest : public ::testing::Test {
  protected:
    // The chain loader reads PEM only and refuses the whole text for one bad record.
    static void expectRefused(const std::string& text, const std::string& message) {
        EXPECT_THROW_MSG(X509CertificateChain{text}, fc::X509CertificateChainException, message);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }

    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const std::string rootPem = testsupport::toPEM(pki.root.get());
    const std::string intermediatePem = testsupport::toPEM(pki.intermediate.get());
    const std::string leafPem = testsupport::toPEM(pki.leaf.get());
    const X509Certificate root{rootPem};
    const X509Certificate intermediate{intermediatePem};
    const X509Certificate leaf{leafPem};
};

TEST_F(ChainTest, LoadsEveryBlockInOrderAndWritesUnwrappedBase64) {
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
    EXPECT_EQ(X509CertificateChain(two.getAsString()), two);
    std::ostringstream printed, expected;
    two.print(printed);
    expected << "Printing certificate chain.\n---------------------------\n"
             << leaf << '\n'
             << root << '\n';
    EXPECT_EQ(printed.str(), expected.str());
}

TEST_F(ChainTest, RefusesTextWithoutBlocksAndDamagedOrWeakBlocks) {
    const fc::ByteArray der = testsupport::toDER(pki.leaf.get());
    expectRefused("no certificates here", "Error: Loading a certificate chain failed. Reason=");
    expectRefused(std::string(der.begin(), der.end()),
                  "Error: Loading a certificate chain failed. Reason=");
    expectRefused(
        leafPem + rootPem +
            "-----BEGIN CERTIFICATE-----\nMIIB!!!!not base64\n-----END CERTIFICATE-----\n",
        "Error: Loading a certificate chain failed. Reason=bad base64 decode");
    testsupport::CertificateRecipe weak;
    weak.key = testsupport::sharedKey(testsupport::KeyKind::RSA512);
    expectRefused(leafPem + testsupport::toPEM(testsupport::makeCertificate(weak).get()),
                  "Error: Unable to parse X509 certificate inside X509 certificate chain.RSA "
                  "key size does not meet minimum cryptographic requirements");

    EXPECT_THROW_MSG(X509CertificateChain{std::string()}, fc::InvalidArgument,
                     "The provided certificate chain string has no content.");
    std::istringstream atEnd(leafPem);
    atEnd.setstate(std::ios_base::eofbit);
    EXPECT_THROW_MSG(X509CertificateChain{atEnd}, fc::InvalidArgument,
                     "The input certificate chain data stream is invalid.");
}

TEST_F(ChainTest, CRLBlocksShareARecordWithTheirNeighbour) {
    const std::string crlPem =
        testsupport::crlToPEM(testsupport::makeCRL(pki.root.get(), pki.rootKey.get()).get());
    EXPECT_EQ(X509CertificateChain(rootPem + crlPem).getCertificates(), Certificates{root});
    // Alone, its record has no certificate.
    expectRefused(crlPem,
                  "Error: Unable to parse X509 certificate inside X509 certificate chain."
                  "Error: X509Certificate has no content.");
}

TEST_F(ChainTest, EmptyChain) {
    X509CertificateChain chain;
    EXPECT_TRUE(chain.empty());
    EXPECT_EQ(chain.getNumCertificates(), 0u);
    EXPECT_EQ(chain.getAsString(), "");
    std::ostringstream printed;
    printed << chain;
    EXPECT_EQ(printed.str(), "Printing certificate chain.\n---------------------------\n");
    EXPECT_THROW_MSG(chain.popLeafCertificate(), fc::X509CertificateChainException,
                     "X509CertificateChain has no content.");
    EXPECT_EQ(chain, X509CertificateChain());
}

TEST_F(ChainTest, PopsTheFirstCertificateThatIsNoCA) {
    X509CertificateChain chain(rootPem + intermediatePem + leafPem);
    EXPECT_EQ(chain.popLeafCertificate(), leaf);
    EXPECT_EQ(chain.getCertificates(), (Certificates{root, intermediate}));
    EXPECT_THROW_MSG(chain.popLeafCertificate(), fc::X509CertificateChainException,
                     "Unable to find a leaf certificate in the given certificate chain");
    EXPECT_EQ(chain.getNumCertificates(), 2u);  // unchanged by the failure

    const X509Certificate otherLeaf(testsupport::toPEM(testsupport::ecPKI().leaf.get()));
    X509CertificateChain twoLeaves(leafPem);
    twoLeaves.addCertificate(otherLeaf);
    EXPECT_EQ(twoLeaves.popLeafCertificate(), leaf);
    EXPECT_EQ(twoLeaves.getCertificates(), Certificates{otherLeaf});
}

TEST_F(ChainTest, EqualityIsElementWiseAndOrdered) {
    const X509CertificateChain forward(leafPem + rootPem);
    EXPECT_EQ(forward, X509CertificateChain(leafPem + rootPem));
    EXPECT_NE(forward, X509CertificateChain(rootPem + leafPem));
    EXPECT_NE(forward, X509CertificateChain(leafPem));
    EXPECT_TRUE(forward == forward);
}

TEST_F(ChainTest, AddCopyAndMove) {
    X509CertificateChain original(leafPem);
    original.addCertificate(leaf);  // duplicates are kept
    EXPECT_THROW_MSG(original.addCertificate(X509Certificate()), fc::InvalidArgument,
                     "The provided certificate has no content.");
    X509CertificateChain copy(original);
    X509CertificateChain assigned;
    assigned = original;
    original.addCertificate(root);
    EXPECT_EQ(copy.getCertificates(), (Certificates{leaf, leaf}));
    EXPECT_EQ(assigned.getCertificates(), (Certificates{leaf, leaf}));

    X509CertificateChain moved(std::move(original));
    EXPECT_EQ(moved.getNumCertificates(), 3u);
    const std::string message = "Error: X509CertificateChain is uninitialized.";
    EXPECT_THROW_MSG(original.getCertificates(), fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(original.popLeafCertificate(), fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(original == moved, fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(X509CertificateChain{original}, fc::X509CertificateChainException, message);
    original.addCertificate(leaf);  // adding brings it back
    EXPECT_EQ(original.getCertificates(), Certificates{leaf});

    copy = std::move(moved);  // move assignment exchanges
    EXPECT_EQ(copy.getNumCertificates(), 3u);
    EXPECT_EQ(moved.getNumCertificates(), 2u);
}

}  // namespace
