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

namespace {

class ChainTest : public ::testing::Test {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const std::string rootPem = testsupport::toPEM(pki.root.get());
    const std::string intermediatePem = testsupport::toPEM(pki.intermediate.get());
    const std::string leafPem = testsupport::toPEM(pki.leaf.get());
    const X509Certificate root{rootPem};
    const X509Certificate intermediate{intermediatePem};
    const X509Certificate leaf{leafPem};
};

TEST_F(ChainTest, LoadsEveryBlockInTextOrder) {
    const X509CertificateChain chain("# a bundle\n" + leafPem + "comment between blocks\n" +
                                     intermediatePem + "\n\n" + rootPem + "trailing text");
    EXPECT_EQ(chain.getCertificates(), (std::vector<X509Certificate>{leaf, intermediate, root}));
    EXPECT_EQ(chain.getNumCertificates(), 3u);
    EXPECT_FALSE(chain.empty());
    EXPECT_EQ(ERR_peek_error(), 0u);

    std::istringstream stream(leafPem + rootPem);
    EXPECT_EQ(X509CertificateChain(stream).getCertificates(),
              (std::vector<X509Certificate>{leaf, root}));
}

TEST_F(ChainTest, WritesUnwrappedBase64Blocks) {
    const X509CertificateChain chain(leafPem + rootPem);
    EXPECT_EQ(chain.getAsString(),
              "-----BEGIN CERTIFICATE-----\n" + leaf.getAsString() +
                  "\n-----END CERTIFICATE-----\n-----BEGIN CERTIFICATE-----\n" +
                  root.getAsString() + "\n-----END CERTIFICATE-----\n");
    EXPECT_EQ(X509CertificateChain(chain.getAsString()), chain);
}

TEST_F(ChainTest, TextWithoutABlockFailsWithNoReason) {
    // DER is no PEM at all: the chain loader reads PEM only.
    const fc::ByteArray der = testsupport::toDER(pki.leaf.get());
    for (const std::string& text :
         {std::string("no certificates here"), std::string(der.begin(), der.end())}) {
        EXPECT_THROW_MSG(X509CertificateChain{text}, fc::X509CertificateChainException,
                         "Error: Loading a certificate chain failed. Reason=");
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST_F(ChainTest, OneDamagedBlockFailsTheWholeChain) {
    const std::string damaged =
        "-----BEGIN CERTIFICATE-----\nMIIB!!!!not base64\n-----END CERTIFICATE-----\n";
    EXPECT_THROW_MSG(X509CertificateChain{leafPem + rootPem + damaged},
                     fc::X509CertificateChainException,
                     "Error: Loading a certificate chain failed. Reason=bad base64 decode");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(ChainTest, CRLBlocksShareARecordWithTheirNeighbour) {
    testsupport::CRLRecipe recipe;
    recipe.issuer = pki.root.get();
    recipe.signingKey = pki.rootKey.get();
    const std::string crlPem = testsupport::crlToPEM(testsupport::makeCRL(recipe).get());

    // Filed into the certificate's record: one certificate.
    EXPECT_EQ(X509CertificateChain(rootPem + crlPem).getCertificates(),
              std::vector<X509Certificate>{root});
    // Alone, its record has no certificate.
    EXPECT_THROW_MSG(X509CertificateChain{crlPem}, fc::X509CertificateChainException,
                     "Error: Unable to parse X509 certificate inside X509 certificate chain."
                     "Error: X509Certificate has no content.");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(ChainTest, WeakKeysInsideTheTextAreRefused) {
    testsupport::CertificateRecipe weak;
    weak.key = testsupport::sharedKey(testsupport::KeyKind::RSA512);
    const std::string weakPem = testsupport::toPEM(testsupport::makeCertificate(weak).get());
    EXPECT_THROW_MSG(X509CertificateChain{leafPem + weakPem}, fc::X509CertificateChainException,
                     "Error: Unable to parse X509 certificate inside X509 certificate chain.RSA "
                     "key size does not meet minimum cryptographic requirements");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(ChainTest, RefusesEmptyInput) {
    EXPECT_THROW_MSG(X509CertificateChain{std::string()}, fc::InvalidArgument,
                     "The provided certificate chain string has no content.");
    std::istringstream atEnd(leafPem);
    atEnd.setstate(std::ios_base::eofbit);
    EXPECT_THROW_MSG(X509CertificateChain{atEnd}, fc::InvalidArgument,
                     "The input certificate chain data stream is invalid.");
    std::istringstream drained(leafPem);
    drained.ignore(static_cast<std::streamsize>(leafPem.size()));
    EXPECT_THROW_MSG(X509CertificateChain{drained}, fc::InvalidArgument,
                     "The provided certificate chain string has no content.");
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

TEST_F(ChainTest, PrintsEveryCertificate) {
    const X509CertificateChain chain(leafPem + rootPem);
    std::ostringstream printed;
    chain.print(printed);
    std::ostringstream expected;
    expected << "Printing certificate chain.\n---------------------------\n"
             << leaf << '\n'
             << root << '\n';
    EXPECT_EQ(printed.str(), expected.str());
}

TEST_F(ChainTest, PopsTheFirstCertificateThatIsNoCA) {
    X509CertificateChain chain(rootPem + intermediatePem + leafPem);
    EXPECT_EQ(chain.popLeafCertificate(), leaf);
    EXPECT_EQ(chain.getCertificates(), (std::vector<X509Certificate>{root, intermediate}));
    EXPECT_THROW_MSG(chain.popLeafCertificate(), fc::X509CertificateChainException,
                     "Unable to find a leaf certificate in the given certificate chain");
    EXPECT_EQ(chain.getNumCertificates(), 2u);  // unchanged by the failure

    X509CertificateChain twoLeaves;
    twoLeaves.addCertificate(leaf);
    const X509Certificate otherLeaf(testsupport::toPEM(testsupport::ecPKI().leaf.get()));
    twoLeaves.addCertificate(otherLeaf);
    EXPECT_EQ(twoLeaves.popLeafCertificate(), leaf);
    EXPECT_EQ(twoLeaves.getCertificates(), std::vector<X509Certificate>{otherLeaf});
}

TEST_F(ChainTest, EqualityIsElementWiseAndOrdered) {
    const X509CertificateChain forward(leafPem + rootPem);
    const X509CertificateChain backward(rootPem + leafPem);
    const X509CertificateChain shorter(leafPem);
    EXPECT_EQ(forward, X509CertificateChain(leafPem + rootPem));
    EXPECT_NE(forward, backward);
    EXPECT_NE(forward, shorter);
    EXPECT_TRUE(forward == forward);
}

TEST_F(ChainTest, AddingAppendsAndRefusesEmptyCertificates) {
    X509CertificateChain chain(leafPem);
    chain.addCertificate(leaf);  // duplicates are kept
    EXPECT_EQ(chain.getNumCertificates(), 2u);
    EXPECT_THROW_MSG(chain.addCertificate(X509Certificate()), fc::InvalidArgument,
                     "The provided certificate has no content.");
}

TEST_F(ChainTest, CopiesAreIndependent) {
    X509CertificateChain original(leafPem);
    X509CertificateChain copy(original);
    X509CertificateChain assigned;
    assigned = original;
    original.addCertificate(root);
    EXPECT_EQ(copy.getNumCertificates(), 1u);
    EXPECT_EQ(assigned.getNumCertificates(), 1u);
}

TEST_F(ChainTest, MovedFromChainIsUninitialisedUntilACertificateIsAdded) {
    X509CertificateChain source(leafPem + rootPem);
    X509CertificateChain target(std::move(source));
    EXPECT_EQ(target.getNumCertificates(), 2u);

    const std::string message = "Error: X509CertificateChain is uninitialized.";
    std::ostringstream out;
    EXPECT_THROW_MSG(source.getNumCertificates(), fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(source.getCertificates(), fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(source.empty(), fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(source.getAsString(), fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(source.print(out), fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(source.popLeafCertificate(), fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(source == target, fc::X509CertificateChainException, message);
    EXPECT_THROW_MSG(X509CertificateChain{source}, fc::X509CertificateChainException, message);

    source.addCertificate(leaf);
    EXPECT_EQ(source.getCertificates(), std::vector<X509Certificate>{leaf});

    X509CertificateChain other(rootPem);
    other = std::move(target);  // move assignment exchanges
    EXPECT_EQ(other.getNumCertificates(), 2u);
    EXPECT_EQ(target.getNumCertificates(), 1u);
}

}  // namespace
