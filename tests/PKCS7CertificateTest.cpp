#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"
#include "support/TestPKCS12.hpp"
#include "support/TestPKCS7.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>
#include <foundation/certificates/TrustStore.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <sstream>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::PKCS7Certificate;
using fc::X509Certificate;

namespace {

ByteArray bytesOf(const std::string& text) { return ByteArray(text.begin(), text.end()); }
X509Certificate certificateOf(const X509* x509) {
    return X509Certificate(testsupport::toPEM(x509));
}

class PKCS7Test : public ::testing::Test {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const X509Certificate leaf = certificateOf(pki.leaf.get());
    const std::vector<X509Certificate> bundleOrder{leaf, certificateOf(pki.intermediate.get()),
                                                   certificateOf(pki.root.get())};
    const testsupport::PKCS7Ptr bundle = testsupport::makeCertificateBundle(
        {pki.leaf.get(), pki.intermediate.get(), pki.root.get()});
    const std::string bundlePem = testsupport::pkcs7ToPEM(bundle.get());
    const ByteArray bundleDer = testsupport::pkcs7ToDER(bundle.get());
    const X509Certificate signer = certificateOf(testsupport::chainedSigner().certificate.get());
    // Binary content: line ends and NUL bytes must come back unchanged.
    const ByteArray content = bytesOf(std::string("signed\r\ncontent\n\0end", 20));

    PKCS7Certificate signature(bool detached, bool withCertificates = true) const {
        return PKCS7Certificate(testsupport::pkcs7ToPEM(
            testsupport::makeSignature(
                {&testsupport::chainedSigner(), {}, detached, withCertificates}, content)
                .get()));
    }

    void TearDown() override { ERR_clear_error(); }
};

TEST_F(PKCS7Test, LoadsABundleInOrderFromEitherEncoding) {
    std::istringstream stream(bundlePem);
    for (const PKCS7Certificate& pkcs7 :
         {PKCS7Certificate(bundlePem), PKCS7Certificate(bundleDer), PKCS7Certificate(stream),
          PKCS7Certificate("Certificates of example.test\n" + bundlePem)}) {
        EXPECT_EQ(pkcs7.getCertificates(), bundleOrder);
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(PKCS7Test, RefusalsNameTheirCauseAndLeaveTheQueueEmpty) {
    const std::string corrupt =
        "Input PKCS7 certificate is corrupt. It doesn't have the right type field.";
    const testsupport::PKCS7Ptr data = testsupport::makeDataStructure();
    const testsupport::PKCS7Ptr enveloped =
        testsupport::makeEnvelopedStructure(pki.leaf.get(), content);
    const std::pair<ByteArray, std::string> invalid[] = {
        {testsupport::pkcs7ToDER(data.get()), corrupt},
        {bytesOf(testsupport::pkcs7ToPEM(data.get())), corrupt},
        {testsupport::pkcs7ToDER(enveloped.get()), corrupt},
        {bytesOf(testsupport::pkcs7ToPEM(enveloped.get())), corrupt},
        // A PEM certificate holds no PKCS#7 header, so it is read as DER.
        {bytesOf(testsupport::toPEM(pki.leaf.get())),
         "Input certificate data was autodetected to be DER-encoded, but is not in DER encoding. "
         "Please verify the input data."},
        // The header inside a line starts no PEM block, but detection still says PEM.
        {bytesOf("see the -----BEGIN PKCS7----- block below\n"),
         "Input certificate data was autodetected to be PEM-encoded, but is not in PEM encoding. "
         "Please verify the input data."},
        {ByteArray(), "The provided PKCS7 certificate has no content."}};
    for (const auto& [input, message] : invalid) {
        EXPECT_THROW_MSG(PKCS7Certificate{input}, fc::InvalidArgument, message);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }

    const fc::X509UPtr weak =
        testsupport::selfSignedFor(testsupport::sharedKey(testsupport::KeyKind::RSA512));
    const std::pair<ByteArray, std::string> unparsable[] = {
        {ByteArray(bundleDer.begin(), bundleDer.begin() + bundleDer.size() / 2),
         "Error: Loading a certificate failed. Reason=not enough data"},
        {testsupport::pkcs7ToDER(
             testsupport::makeCertificateBundle({pki.leaf.get(), weak.get()}).get()),
         "Error: Unable to parse X509 certificate(s) inside PKCS7 certificate.RSA key size does "
         "not meet minimum cryptographic requirements"}};
    for (const auto& [input, message] : unparsable) {
        EXPECT_THROW_MSG(PKCS7Certificate{input}, fc::PKCS7CertificateException, message);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST_F(PKCS7Test, WritingGivesTheLoadedStructureOnly) {
    PKCS7Certificate pkcs7(bundleDer);
    EXPECT_EQ(pkcs7.getAsString(), bundlePem);
    EXPECT_EQ(PKCS7Certificate(pkcs7.getAsBytes()), pkcs7);
    const PKCS7Certificate copy(pkcs7);
    pkcs7.addCertificate(signer);
    EXPECT_EQ(pkcs7.getCertificates().back(), signer);
    EXPECT_EQ(pkcs7.getAsBytes(), bytesOf(bundlePem));
    EXPECT_EQ(copy.getCertificates(), bundleOrder);
    EXPECT_NE(copy, pkcs7);
    EXPECT_THROW_MSG(pkcs7.addCertificate(X509Certificate()), fc::InvalidArgument,
                     "The provided certificate has no content.");

    // Signed-data without certificates, and no structure at all.
    PKCS7Certificate noCertificates = signature(false, false);
    for (const PKCS7Certificate& empty :
         {PKCS7Certificate(testsupport::pkcs7ToPEM(testsupport::makeCertificateBundle({}).get())),
          noCertificates, PKCS7Certificate()}) {
        EXPECT_TRUE(empty.empty());
        EXPECT_TRUE(empty.getAsBytes().empty());
    }
    // The signer's certificate is looked up only inside the structure.
    noCertificates.addCertificate(signer);
    EXPECT_TRUE(noCertificates.getSignerCerts().empty());
    PKCS7Certificate unwritten;
    unwritten.addCertificate(leaf);
    EXPECT_THROW_MSG(unwritten.getAsBytes(), fc::PKCS7CertificateException,
                     "Unable to write out the PKCS7 data");
}

TEST_F(PKCS7Test, SignerAndSignedDataComeFromTheSignerInformation) {
    const PKCS7Certificate bundleOnly(bundlePem);
    EXPECT_TRUE(bundleOnly.getSignerCerts().empty());
    EXPECT_NE(ERR_peek_error(), 0u);  // left for the caller
    ERR_clear_error();
    const PKCS7Certificate attached = signature(false);
    const PKCS7Certificate detached = signature(true);
    EXPECT_EQ(attached.getSignedData(), content);
    EXPECT_TRUE(detached.getSignedData().empty());
    EXPECT_NE(ERR_peek_error(), 0u);
    ERR_clear_error();
    EXPECT_EQ(attached.getSignerCerts().getCertificates(), std::vector<X509Certificate>{signer});
    EXPECT_EQ(detached.getSignerCerts().getCertificates(), std::vector<X509Certificate>{signer});
}

TEST_F(PKCS7Test, PrintsEveryCertificate) {
    std::ostringstream printed;
    printed << PKCS7Certificate(bundlePem);
    std::ostringstream expected;
    expected << "Printing PKCS7 certificate.\n";
    for (const X509Certificate& certificate : bundleOrder) expected << certificate << '\n';
    EXPECT_EQ(printed.str(), expected.str());
}

TEST_F(PKCS7Test, MovedFromObjectIsUninitialised) {
    PKCS7Certificate source(bundlePem);
    const PKCS7Certificate target(std::move(source));
    EXPECT_EQ(target.getCertificates(), bundleOrder);

    const std::string message = "Error: PKCS7Certificate is uninitialized.";
    using E = fc::PKCS7CertificateException;
    EXPECT_THROW_MSG(source.getCertificates(), E, message);
    EXPECT_THROW_MSG(source.empty(), E, message);
    EXPECT_THROW_MSG(source.getAsBytes(), E, message);
    EXPECT_THROW_MSG(source.getSignerCerts(), E, message);
    EXPECT_THROW_MSG(source.verifySignature({}, fc::TrustStore(), {}), E, message);
    EXPECT_THROW_MSG(target == source, E, message);
    EXPECT_THROW_MSG(PKCS7Certificate{source}, E, message);
}

}  // namespace
