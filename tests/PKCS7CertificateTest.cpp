#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"
#include "support/TestPKCS7.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <atomic>
#include <sstream>
#include <thread>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::PKCS7Certificate;
using fc::X509Certificate;

namespace {

ByteArray bytesOf(const std::string& text) { return ByteArray(text.begin(), text.end()); }

class PKCS7Test : public ::testing::Test {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const X509Certificate root{testsupport::toPEM(pki.root.get())};
    const X509Certificate intermediate{testsupport::toPEM(pki.intermediate.get())};
    const X509Certificate leaf{testsupport::toPEM(pki.leaf.get())};
    const std::vector<X509Certificate> bundleOrder{leaf, intermediate, root};

    const testsupport::PKCS7Ptr bundle = testsupport::makeCertificateBundle(
        {pki.leaf.get(), pki.intermediate.get(), pki.root.get()});
    const std::string bundlePem = testsupport::pkcs7ToPEM(bundle.get());
    const ByteArray bundleDer = testsupport::pkcs7ToDER(bundle.get());

    const testsupport::Signer& signer = testsupport::chainedSigner();
    const X509Certificate signerCertificate{testsupport::toPEM(signer.certificate.get())};
    // Binary content: line ends and NUL bytes must come back unchanged.
    const ByteArray content = bytesOf(std::string("signed\r\ncontent\n\0end", 20));

    std::string signature(testsupport::SignatureRecipe recipe) const {
        recipe.signer = &signer;
        return testsupport::pkcs7ToPEM(testsupport::makeSignature(recipe, content).get());
    }

    void TearDown() override { ERR_clear_error(); }
};

TEST_F(PKCS7Test, LoadsABundleInOrderFromEitherEncoding) {
    std::istringstream stream(bundlePem);
    const std::vector<PKCS7Certificate> loaded = {
        PKCS7Certificate(bundlePem), PKCS7Certificate(bytesOf(bundlePem)),
        PKCS7Certificate(bundleDer),
        PKCS7Certificate(std::string(bundleDer.begin(), bundleDer.end())), PKCS7Certificate(stream),
        // Text ahead of the header leaves the data PEM.
        PKCS7Certificate("Certificates of example.test\n" + bundlePem)};
    for (const PKCS7Certificate& pkcs7 : loaded) {
        EXPECT_EQ(pkcs7.getCertificates(), bundleOrder);
        EXPECT_EQ(pkcs7.getNumCertificates(), 3u);
        EXPECT_FALSE(pkcs7.empty());
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(PKCS7Test, SignedAndEnvelopedStructuresCarryCertificatesToo) {
    const testsupport::PKCS7Ptr structure =
        testsupport::makeSignedAndEnvelopedBundle({pki.root.get(), pki.leaf.get()});
    const PKCS7Certificate pkcs7(testsupport::pkcs7ToDER(structure.get()));
    EXPECT_EQ(pkcs7.getCertificates(), (std::vector<X509Certificate>{root, leaf}));
    EXPECT_EQ(pkcs7.getSignerCerts().getNumCertificates(), 0u);
    EXPECT_TRUE(pkcs7.getSignedData().empty());
}

TEST_F(PKCS7Test, OtherContentTypesAreRefused) {
    const testsupport::PKCS7Ptr data = testsupport::makeDataStructure(content);
    const testsupport::PKCS7Ptr enveloped =
        testsupport::makeEnvelopedStructure(pki.leaf.get(), content);
    for (const PKCS7* structure : {data.get(), enveloped.get()}) {
        for (const ByteArray& encoded :
             {bytesOf(testsupport::pkcs7ToPEM(structure)), testsupport::pkcs7ToDER(structure)}) {
            EXPECT_THROW_MSG(PKCS7Certificate{encoded}, fc::InvalidArgument,
                             "Input PKCS7 certificate is corrupt. It doesn't have the right type "
                             "field.");
            EXPECT_EQ(ERR_peek_error(), 0u);
        }
    }
}

TEST_F(PKCS7Test, DetectionDecidesWhichMessageAFailureGets) {
    const std::string derMessage =
        "Input certificate data was autodetected to be DER-encoded, but is not in DER encoding. "
        "Please verify the input data.";
    const std::string pemMessage =
        "Input certificate data was autodetected to be PEM-encoded, but is not in PEM encoding. "
        "Please verify the input data.";
    // A PEM certificate holds no PKCS#7 header, so it is read as DER.
    EXPECT_THROW_MSG(PKCS7Certificate{testsupport::toPEM(pki.leaf.get())}, fc::InvalidArgument,
                     derMessage);
    // The header inside a line is no PEM block.
    EXPECT_THROW_MSG(PKCS7Certificate{"see the -----BEGIN PKCS7----- block below\n"},
                     fc::InvalidArgument, pemMessage);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(PKCS7Test, OtherParseFailuresCarryOpenSSLsReason) {
    const ByteArray truncated(bundleDer.begin(), bundleDer.begin() + bundleDer.size() / 2);
    EXPECT_THROW_MSG(PKCS7Certificate{truncated}, fc::PKCS7CertificateException,
                     "Error: Loading a certificate failed. Reason=not enough data");
    std::string damaged = bundlePem;
    damaged[30] = '!';
    EXPECT_THROW_MSG(PKCS7Certificate{damaged}, fc::PKCS7CertificateException,
                     "Error: Loading a certificate failed. Reason=bad base64 decode");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(PKCS7Test, RefusedCertificateFailsTheWholeStructure) {
    testsupport::CertificateRecipe weak;
    weak.key = testsupport::sharedKey(testsupport::KeyKind::RSA512);
    const fc::X509UPtr weakCertificate = testsupport::makeCertificate(weak);
    const testsupport::PKCS7Ptr structure =
        testsupport::makeCertificateBundle({pki.leaf.get(), weakCertificate.get()});
    EXPECT_THROW_MSG(PKCS7Certificate{testsupport::pkcs7ToDER(structure.get())},
                     fc::PKCS7CertificateException,
                     "Error: Unable to parse X509 certificate(s) inside PKCS7 certificate.RSA key "
                     "size does not meet minimum cryptographic requirements");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(PKCS7Test, RefusesEmptyAndUnreadableInput) {
    const std::string noContent = "The provided PKCS7 certificate has no content.";
    EXPECT_THROW_MSG(PKCS7Certificate{std::string()}, fc::InvalidArgument, noContent);
    EXPECT_THROW_MSG(PKCS7Certificate{ByteArray()}, fc::InvalidArgument, noContent);
    std::istringstream drained(bundlePem);
    drained.ignore(static_cast<std::streamsize>(bundlePem.size()));
    EXPECT_THROW_MSG(PKCS7Certificate{drained}, fc::InvalidArgument, noContent);

    std::istringstream failed(bundlePem);
    failed.setstate(std::ios_base::failbit);
    EXPECT_THROW_MSG(PKCS7Certificate{failed}, fc::InvalidArgument,
                     "The input PKCS7 certificate data stream is invalid.");
}

TEST_F(PKCS7Test, StructureWithoutCertificatesIsEmpty) {
    testsupport::SignatureRecipe noCertificates;
    noCertificates.withCertificates = false;
    for (const std::string& pem :
         {testsupport::pkcs7ToPEM(testsupport::makeCertificateBundle({}).get()),
          signature(noCertificates)}) {
        const PKCS7Certificate pkcs7(pem);
        EXPECT_TRUE(pkcs7.empty());
        EXPECT_EQ(pkcs7.getNumCertificates(), 0u);
        EXPECT_TRUE(pkcs7.getAsBytes().empty());
        EXPECT_EQ(pkcs7.getAsString(), "");
        EXPECT_EQ(pkcs7, PKCS7Certificate());
    }
}

TEST_F(PKCS7Test, WritesTheStructureAsOpenSSLDoes) {
    const PKCS7Certificate pkcs7(bundleDer);
    EXPECT_EQ(pkcs7.getAsString(), bundlePem);
    EXPECT_EQ(pkcs7.getAsBytes(), bytesOf(bundlePem));
    EXPECT_EQ(PKCS7Certificate(pkcs7.getAsBytes()), pkcs7);
}

TEST_F(PKCS7Test, AddingChangesTheListButNotTheStructure) {
    PKCS7Certificate pkcs7(bundlePem);
    pkcs7.addCertificate(signerCertificate);
    EXPECT_EQ(pkcs7.getNumCertificates(), 4u);
    EXPECT_EQ(pkcs7.getCertificates().back(), signerCertificate);
    EXPECT_EQ(pkcs7.getAsString(), bundlePem);
    EXPECT_THROW_MSG(pkcs7.addCertificate(X509Certificate()), fc::InvalidArgument,
                     "The provided certificate has no content.");
    EXPECT_EQ(pkcs7.getNumCertificates(), 4u);
}

TEST_F(PKCS7Test, WithoutAStructureThereIsNothingToWrite) {
    PKCS7Certificate pkcs7;
    EXPECT_TRUE(pkcs7.empty());
    EXPECT_TRUE(pkcs7.getAsBytes().empty());
    EXPECT_TRUE(pkcs7.getSignerCerts().empty());
    EXPECT_TRUE(pkcs7.getSignedData().empty());
    ERR_clear_error();

    pkcs7.addCertificate(leaf);
    EXPECT_THROW_MSG(pkcs7.getAsBytes(), fc::PKCS7CertificateException,
                     "Unable to write out the PKCS7 data");
    EXPECT_THROW_MSG(pkcs7.getAsString(), fc::PKCS7CertificateException,
                     "Unable to write out the PKCS7 data");
}

TEST_F(PKCS7Test, EqualityComparesOnlyTheLists) {
    const PKCS7Certificate forward(bundlePem);
    const PKCS7Certificate backward(testsupport::pkcs7ToPEM(
        testsupport::makeCertificateBundle({pki.root.get(), pki.intermediate.get(), pki.leaf.get()})
            .get()));
    EXPECT_EQ(forward, PKCS7Certificate(bundleDer));
    EXPECT_NE(forward, backward);
    EXPECT_TRUE(forward == forward);

    // A signature and a bundle holding the same certificate are equal.
    PKCS7Certificate justTheSigner;
    justTheSigner.addCertificate(signerCertificate);
    EXPECT_EQ(PKCS7Certificate(signature({})), justTheSigner);
}

TEST_F(PKCS7Test, PrintsEveryCertificateWithoutUnderline) {
    std::ostringstream printed;
    printed << PKCS7Certificate(bundlePem);
    std::ostringstream expected;
    expected << "Printing PKCS7 certificate.\n"
             << leaf << '\n'
             << intermediate << '\n'
             << root << '\n';
    EXPECT_EQ(printed.str(), expected.str());
}

TEST_F(PKCS7Test, CopiesAreIndependentAndKeepTheStructure) {
    PKCS7Certificate original(bundlePem);
    const PKCS7Certificate copy(original);
    PKCS7Certificate assigned;
    assigned = original;
    original.addCertificate(signerCertificate);
    for (const PKCS7Certificate* duplicate :
         {&copy, static_cast<const PKCS7Certificate*>(&assigned)}) {
        EXPECT_EQ(duplicate->getCertificates(), bundleOrder);
        EXPECT_EQ(duplicate->getAsString(), bundlePem);
    }
}

TEST_F(PKCS7Test, MovedFromObjectIsUninitialisedUntilACertificateIsAdded) {
    PKCS7Certificate source(bundlePem);
    PKCS7Certificate target(std::move(source));
    EXPECT_EQ(target.getCertificates(), bundleOrder);

    const std::string message = "Error: PKCS7Certificate is uninitialized.";
    std::ostringstream out;
    EXPECT_THROW_MSG(source.getCertificates(), fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(source.getNumCertificates(), fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(source.empty(), fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(source.getAsBytes(), fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(source.getAsString(), fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(source.getSignerCerts(), fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(source.getSignedData(), fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(source.print(out), fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(source == target, fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(target == source, fc::PKCS7CertificateException, message);
    EXPECT_THROW_MSG(PKCS7Certificate{source}, fc::PKCS7CertificateException, message);

    source.addCertificate(leaf);
    EXPECT_EQ(source.getCertificates(), std::vector<X509Certificate>{leaf});
    EXPECT_THROW_MSG(source.getAsBytes(), fc::PKCS7CertificateException,
                     "Unable to write out the PKCS7 data");
}

TEST_F(PKCS7Test, SignerCertificatesComeOnlyFromSignerInformation) {
    EXPECT_TRUE(PKCS7Certificate(bundlePem).getSignerCerts().empty());
    EXPECT_NE(ERR_peek_error(), 0u);  // left for the caller
    ERR_clear_error();

    testsupport::SignatureRecipe withIntermediate;
    withIntermediate.extraCertificates = {pki.intermediate.get()};
    const PKCS7Certificate signed_(signature(withIntermediate));
    EXPECT_EQ(signed_.getCertificates(),
              (std::vector<X509Certificate>{signerCertificate, intermediate}));
    EXPECT_EQ(signed_.getSignerCerts().getCertificates(),
              std::vector<X509Certificate>{signerCertificate});

    testsupport::SignatureRecipe detached;
    detached.detached = true;
    EXPECT_EQ(PKCS7Certificate(signature(detached)).getSignerCerts().getCertificates(),
              std::vector<X509Certificate>{signerCertificate});

    // The signer's certificate is looked up only inside the structure.
    testsupport::SignatureRecipe noCertificates;
    noCertificates.withCertificates = false;
    PKCS7Certificate unsigned_(signature(noCertificates));
    unsigned_.addCertificate(signerCertificate);
    EXPECT_TRUE(unsigned_.getSignerCerts().empty());
}

TEST_F(PKCS7Test, SignedDataIsTheAttachedContentOnceItVerifies) {
    // Whoever signed: the certificates' paths play no part.
    for (const testsupport::Signer* anySigner :
         {&testsupport::chainedSigner(), &testsupport::directSigner(),
          &testsupport::expiredSigner(), &testsupport::selfSignedSigner()}) {
        testsupport::SignatureRecipe recipe;
        recipe.signer = anySigner;
        const PKCS7Certificate signed_(
            testsupport::pkcs7ToDER(testsupport::makeSignature(recipe, content).get()));
        EXPECT_EQ(signed_.getSignedData(), content);
        EXPECT_EQ(signed_.getSignerCerts().getCertificates(),
                  std::vector<X509Certificate>{
                      X509Certificate(testsupport::toPEM(anySigner->certificate.get()))});
    }

    testsupport::SignatureRecipe detached;
    detached.detached = true;
    testsupport::SignatureRecipe altered;
    altered.alterContent = true;
    testsupport::SignatureRecipe noCertificates;
    noCertificates.withCertificates = false;
    for (const std::string& pem :
         {signature(detached), signature(altered), signature(noCertificates), bundlePem}) {
        EXPECT_TRUE(PKCS7Certificate(pem).getSignedData().empty());
        EXPECT_NE(ERR_peek_error(), 0u);  // left for the caller
        ERR_clear_error();
    }
}

// The loaded structure shares its certificates with the values handed out: signature work on the
// structure and reads of those values run side by side.
using PKCS7Concurrency = PKCS7Test;

TEST_F(PKCS7Concurrency, SharedCertificatesStayReadableDuringSignatureWork) {
    testsupport::SignatureRecipe withIntermediate;
    withIntermediate.extraCertificates = {pki.intermediate.get()};
    const PKCS7Certificate shared(signature(withIntermediate));
    const std::vector<X509Certificate> handedOut = shared.getCertificates();
    std::atomic<int> mismatches{0};

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                const X509Certificate& certificate = handedOut[static_cast<std::size_t>(t % 2)];
                const bool ok =
                    (t < 2 ? shared.getSignedData() == content &&
                                 shared.getSignerCerts().getCertificates().front() == handedOut[0]
                           : certificate.getPublicKeyInfo().getKeySize() == 2048 &&
                                 certificate.isCACertificate() == (t % 2 == 1) &&
                                 PKCS7Certificate(shared) == shared);
                if (!ok) ++mismatches;
                ERR_clear_error();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches, 0);
}

}  // namespace
