// Loading, serialising, copying and moving certificates.
#include "X509CertificateImpl.hpp"
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <functional>
#include <sstream>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::X509Certificate;
using testsupport::KeyKind;

namespace {

ByteArray bytesOf(const std::string& text) { return ByteArray(text.begin(), text.end()); }

// The reason OpenSSL itself gives for the first error when parsing the bytes as DER.
std::string opensslDerReason(const ByteArray& der) {
    ERR_clear_error();
    fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    BIO_write(bio.get(), der.data(), static_cast<int>(der.size()));
    X509_free(d2i_X509_bio(bio.get(), nullptr));
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    ERR_clear_error();
    return reason != nullptr ? reason : "";
}

struct PKICase {
    const char* name;
    const testsupport::TestPKI& (*pki)();
};

class LoadingAllEncodings : public ::testing::TestWithParam<PKICase> {
  protected:
    const X509* leaf() const { return GetParam().pki().leaf.get(); }
};

TEST_P(LoadingAllEncodings, DERAndPEMGiveTheSameCertificate) {
    const ByteArray der = testsupport::toDER(leaf());
    const std::string pem = testsupport::toPEM(leaf());

    const X509Certificate fromDer(der);
    const X509Certificate fromPem(pem);
    const X509Certificate fromPemBytes(bytesOf(pem));
    const X509Certificate afterText("Some text before the block\n\n" + pem);
    std::istringstream stream(pem);
    const X509Certificate fromStream(stream);

    for (const X509Certificate* certificate :
         {&fromDer, &fromPem, &fromPemBytes, &afterText, &fromStream}) {
        EXPECT_FALSE(certificate->empty());
        EXPECT_EQ(certificate->getAsBytes(), der);
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_P(LoadingAllEncodings, PEMOutputHas63CharacterLinesAndLoadsBack) {
    const X509Certificate certificate(testsupport::toDER(leaf()));
    const std::string pem = certificate.getAsPEMString();
    const std::string body = fc::base64Encode(certificate.getAsBytes());

    std::istringstream lines(pem);
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "-----BEGIN CERTIFICATE-----");
    std::string joined;
    std::vector<std::size_t> lengths;
    while (std::getline(lines, line) && line != "-----END CERTIFICATE-----") {
        lengths.push_back(line.size());
        joined += line;
    }
    EXPECT_EQ(line, "-----END CERTIFICATE-----");
    EXPECT_EQ(joined, body);
    ASSERT_FALSE(lengths.empty());
    for (std::size_t i = 0; i + 1 < lengths.size(); ++i) EXPECT_EQ(lengths[i], 63u);
    EXPECT_GE(lengths.back(), 1u);
    EXPECT_LE(lengths.back(), 63u);
    EXPECT_EQ(pem.back(), '\n');

    EXPECT_EQ(X509Certificate(pem).getAsBytes(), certificate.getAsBytes());
    EXPECT_EQ(certificate.getAsString(), body);
}

INSTANTIATE_TEST_SUITE_P(X509Certificate, LoadingAllEncodings,
                         ::testing::Values(PKICase{"RSA", testsupport::rsaPKI},
                                           PKICase{"EC", testsupport::ecPKI}),
                         [](const auto& info) { return std::string(info.param.name); });

// A certificate whose DER has exactly the given size, padded through a comment extension.
X509Certificate certificateOfSize(std::size_t derSize) {
    for (std::size_t padding = 1; padding < 2000; ++padding) {
        testsupport::CertificateRecipe recipe;
        recipe.key = testsupport::sharedKey(KeyKind::Ed25519);
        recipe.extensions = {{NID_netscape_comment, std::string(padding, 'x')}};
        const fc::X509UPtr x = testsupport::makeCertificate(recipe);
        const ByteArray der = testsupport::toDER(x.get());
        if (der.size() == derSize) return X509Certificate(der);
        if (der.size() > derSize) break;
    }
    throw std::runtime_error("no certificate of that size");
}

std::vector<std::size_t> pemBodyLineLengths(const std::string& pem) {
    std::vector<std::size_t> lengths;
    std::istringstream lines(pem);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("-----", 0) != 0) lengths.push_back(line.size());
    }
    return lengths;
}

TEST(X509CertificatePEM, LineBreaksAtExactBoundaries) {
    // 1000 bytes: 1336 characters, 21 full lines and one of 13.
    std::vector<std::size_t> expected(21, 63);
    expected.push_back(13);
    EXPECT_EQ(pemBodyLineLengths(certificateOfSize(1000).getAsPEMString()), expected);
    // 756 bytes: 1008 characters, exactly 16 full lines and no empty line.
    EXPECT_EQ(pemBodyLineLengths(certificateOfSize(756).getAsPEMString()),
              std::vector<std::size_t>(16, 63));
}

TEST(X509CertificateLoading, OnlyTheFirstPEMBlockIsRead) {
    const auto& pki = testsupport::rsaPKI();
    const X509Certificate certificate(testsupport::toPEM(pki.leaf.get()) +
                                      testsupport::toPEM(pki.root.get()));
    EXPECT_EQ(certificate.getAsBytes(), testsupport::toDER(pki.leaf.get()));
}

TEST(X509CertificateLoading, TrailingBytesAfterDERAreIgnored) {
    ByteArray der = testsupport::toDER(testsupport::rsaPKI().root.get());
    const ByteArray original = der;
    der.insert(der.end(), {0x00, 0x01, 0x02});
    EXPECT_EQ(X509Certificate(der).getAsBytes(), original);
}

TEST(X509CertificateLoading, EmptyInputHasNoContent) {
    EXPECT_THROW_MSG(X509Certificate(std::string()), fc::InvalidArgument,
                     "The input certificate has no content.");
    EXPECT_THROW_MSG(X509Certificate(ByteArray()), fc::InvalidArgument,
                     "The input certificate has no content.");
    std::istringstream drained("abc");
    drained.ignore(3);
    ASSERT_TRUE(drained.good());
    EXPECT_THROW_MSG(X509Certificate{drained}, fc::InvalidArgument,
                     "The input certificate has no content.");
}

TEST(X509CertificateLoading, StreamsThatAreNotGoodAreRefused) {
    const std::string pem = testsupport::toPEM(testsupport::rsaPKI().leaf.get());
    std::istringstream failed(pem);
    failed.setstate(std::ios_base::failbit);
    EXPECT_THROW_MSG(X509Certificate{failed}, fc::InvalidArgument,
                     "The input certificate data stream is invalid.");
    std::istringstream atEnd(pem);
    atEnd.setstate(std::ios_base::eofbit);
    EXPECT_THROW_MSG(X509Certificate{atEnd}, fc::InvalidArgument,
                     "The input certificate data stream is invalid.");
}

class ThrowingBuffer : public std::streambuf {
  protected:
    int_type underflow() override { throw std::runtime_error("device unplugged"); }
};

TEST(X509CertificateLoading, StreamReadFailureKeepsTheReason) {
    ThrowingBuffer buffer;
    std::istream input(&buffer);
    EXPECT_THROW_MSG(X509Certificate{input}, fc::InvalidArgument,
                     "The input certificate data stream is invalid. Reason:device unplugged");
}

TEST(X509CertificateLoading, WrongTagIsReportedAsNotDER) {
    ByteArray der = testsupport::toDER(testsupport::rsaPKI().leaf.get());
    der[0] = 0x31;  // SET instead of SEQUENCE
    EXPECT_THROW_MSG(X509Certificate{der}, fc::InvalidArgument,
                     "Input certificate data was autodetected to be DER-encoded, but is not in "
                     "DER encoding. Please verify the input data.");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(X509CertificateLoading, OtherDERFailuresCarryOpenSSLsReason) {
    const ByteArray der = testsupport::toDER(testsupport::rsaPKI().leaf.get());
    for (const ByteArray& broken : {ByteArray(der.begin(), der.begin() + 100),
                                    ByteArray{0x30, 0x82, 0xff}, ByteArray{0x30, 0x00}}) {
        const std::string reason = opensslDerReason(broken);
        EXPECT_THROW_MSG(X509Certificate{broken}, fc::X509CertificateException,
                         "Error: Loading a certificate failed. Reason=" + reason);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST(X509CertificateLoading, HeaderWithoutABlockIsReportedAsNotPEM) {
    // The header is found, but not at the start of a line, so OpenSSL sees no block.
    EXPECT_THROW_MSG(X509Certificate{std::string("xx -----BEGIN CERTIFICATE----- yy\n")},
                     fc::InvalidArgument,
                     "Input certificate data was autodetected to be PEM-encoded, but is not in PEM "
                     "encoding. Please verify the input data.");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(X509CertificateLoading, BrokenPEMFramesCarryOpenSSLsReason) {
    EXPECT_THROW_MSG(X509Certificate{std::string("-----BEGIN CERTIFICATE-----")},
                     fc::X509CertificateException,
                     "Error: Loading a certificate failed. Reason=bad end line");
    EXPECT_THROW_MSG(
        X509Certificate{std::string("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE")},
        fc::X509CertificateException, "Error: Loading a certificate failed. Reason=bad end line");
    // An empty block queues no error at all: nothing follows "Reason=".
    EXPECT_THROW_MSG(
        X509Certificate{std::string("-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n")},
        fc::X509CertificateException, "Error: Loading a certificate failed. Reason=");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(X509CertificateLoading, DamagedPEMBodyCarriesOpenSSLsReason) {
    EXPECT_THROW_MSG(X509Certificate(std::string("-----BEGIN CERTIFICATE-----\n!!!!\n"
                                                 "-----END CERTIFICATE-----\n")),
                     fc::X509CertificateException,
                     "Error: Loading a certificate failed. Reason=bad base64 decode");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(X509CertificateLoading, LowerCaseHeaderIsNotPEM) {
    const std::string pem = testsupport::toPEM(testsupport::rsaPKI().leaf.get());
    std::string lower = pem;
    lower.replace(0, 27, "-----begin certificate-----");
    EXPECT_THROW_MSG(X509Certificate{lower}, fc::InvalidArgument,
                     "Input certificate data was autodetected to be DER-encoded, but is not in "
                     "DER encoding. Please verify the input data.");
}

TEST(X509CertificateLoading, CallersQueuedErrorsAreClearedToo) {
    ERR_raise(ERR_LIB_USER, 1);
    const X509Certificate certificate(testsupport::toDER(testsupport::rsaPKI().leaf.get()));
    EXPECT_EQ(ERR_peek_error(), 0u);
}

struct KeyRuleCase {
    KeyKind kind;
    bool loads;
    std::string message;  // when refused
};

class LoadTimeKeyCheck : public ::testing::TestWithParam<KeyRuleCase> {};

TEST_P(LoadTimeKeyCheck, RefusesWeakAndUnsupportedKeys) {
    testsupport::CertificateRecipe recipe;
    recipe.key = testsupport::sharedKey(GetParam().kind);
    const fc::X509UPtr x = testsupport::makeCertificate(recipe);
    const ByteArray der = testsupport::toDER(x.get());
    if (GetParam().loads) {
        EXPECT_NO_THROW(X509Certificate{der});
        EXPECT_NO_THROW(X509Certificate{x.get()});
        return;
    }
    for (const auto& load : std::vector<std::function<void()>>{
             [&] { X509Certificate{der}; }, [&] { X509Certificate{testsupport::toPEM(x.get())}; },
             [&] { X509Certificate{x.get()}; }}) {
        try {
            load();
            ADD_FAILURE() << "loaded";
        } catch (const fc::CertificateException& e) {
            EXPECT_EQ(std::string(e.what()), GetParam().message);
        }
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(
    X509Certificate, LoadTimeKeyCheck,
    ::testing::Values(
        KeyRuleCase{KeyKind::RSA1024, true, ""}, KeyRuleCase{KeyKind::P256, true, ""},
        KeyRuleCase{KeyKind::Ed25519, true, ""},
        KeyRuleCase{KeyKind::RSA1023, false,
                    "RSA key size does not meet minimum cryptographic requirements"},
        KeyRuleCase{KeyKind::RSA512, false,
                    "RSA key size does not meet minimum cryptographic requirements"},
        KeyRuleCase{KeyKind::P384, false,
                    "ECC-based key is not using supported ECC Curve. Curve: secp384r1"},
        KeyRuleCase{KeyKind::Ed448, false, "Key uses Ed448, which is not currently supported"},
        KeyRuleCase{KeyKind::DSA, false, "Key is not currently supported. OpenSSL type id: 116"}),
    [](const auto& info) { return testsupport::keyKindName(info.param.kind); });

TEST(X509CertificateLifetime, DefaultConstructedIsEmpty) {
    const X509Certificate certificate;
    EXPECT_TRUE(certificate.empty());
    EXPECT_THROW_MSG(certificate.getAsBytes(), fc::X509CertificateException,
                     "Error: X509Certificate has no content.");
    EXPECT_THROW_MSG(certificate.getSubjectName(), fc::X509CertificateException,
                     "Error: X509Certificate has no content.");
    EXPECT_THROW_MSG(certificate.getPublicKeyInfo(), fc::X509CertificateException,
                     "Error: X509Certificate has no content.");
    EXPECT_THROW_MSG(certificate == certificate, fc::X509CertificateException,
                     "Error: X509Certificate has no content.");
    EXPECT_THROW_MSG(X509Certificate(static_cast<const X509*>(nullptr)),
                     fc::X509CertificateException, "Error: X509Certificate has no content.");
}

TEST(X509CertificateLifetime, MovedFromObjectIsUninitialised) {
    X509Certificate source(testsupport::toDER(testsupport::rsaPKI().leaf.get()));
    const X509Certificate target(std::move(source));
    EXPECT_FALSE(target.empty());

    const std::string message = "Error: X509Certificate is uninitialized.";
    std::ostringstream out;
    EXPECT_THROW_MSG(source.empty(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.getAsBytes(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.getAsPEMString(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.getSubjectName(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.getSHA256Fingerprint(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.getKeySize(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.clone(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.print(out), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source == target, fc::X509CertificateException, message);
    EXPECT_THROW_MSG(target == source, fc::X509CertificateException, message);
    EXPECT_THROW_MSG(X509Certificate{source}, fc::X509CertificateException, message);
    EXPECT_EQ(out.str(), "");

    source = target;  // assignment brings it back
    EXPECT_EQ(source, target);
}

TEST(X509CertificateLifetime, MoveAssignmentAndSwapExchange) {
    const auto& pki = testsupport::rsaPKI();
    X509Certificate a(testsupport::toDER(pki.leaf.get()));
    X509Certificate b(testsupport::toDER(pki.root.get()));
    a.swap(b);
    EXPECT_EQ(a.getAsBytes(), testsupport::toDER(pki.root.get()));
    EXPECT_EQ(b.getAsBytes(), testsupport::toDER(pki.leaf.get()));
    a = std::move(b);  // the moved-from object receives the target's former certificate
    EXPECT_EQ(a.getAsBytes(), testsupport::toDER(pki.leaf.get()));
    EXPECT_EQ(b.getAsBytes(), testsupport::toDER(pki.root.get()));
}

TEST(X509CertificateLifetime, CopiesShareAndClonesDuplicate) {
    const X509Certificate original(testsupport::toDER(testsupport::rsaPKI().leaf.get()));
    X509Certificate copy(original);
    X509Certificate assigned;
    assigned = original;
    const X509Certificate cloned = original.clone();
    EXPECT_EQ(copy, original);
    EXPECT_EQ(assigned, original);
    EXPECT_EQ(cloned, original);

    const fc::X509UPtr mine = fc::makeX509UPtr(original.getOpenSSLCertificate());
    const fc::X509UPtr again = fc::makeX509UPtr(original.getOpenSSLCertificate());
    ASSERT_TRUE(mine);
    EXPECT_NE(mine.get(), again.get());
    EXPECT_EQ(testsupport::toDER(mine.get()), original.getAsBytes());
}

TEST(X509CertificateLifetime, CallersCertificateIsCopiedNotKept) {
    const auto& pki = testsupport::rsaPKI();
    const fc::X509UPtr callers = fc::makeX509UPtr(X509_dup(pki.leaf.get()));
    const X509Certificate certificate(callers.get());
    ASN1_INTEGER_set(X509_get_serialNumber(callers.get()), 99);
    EXPECT_EQ(certificate.getSerialNumber(), "3");
}

TEST(X509CertificateImpl, EmptyImplementationRefusesAnOpenSSLCopy) {
    const fc::X509CertificateImpl empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_THROW_MSG(empty.getOpenSSLCertificate(), fc::X509CertificateException,
                     "Error: X509Certificate has no content.");
    EXPECT_THROW_MSG(fc::X509CertificateImpl(static_cast<const X509*>(nullptr)),
                     fc::X509CertificateException, "Error: X509Certificate has no content.");
}

TEST(X509CertificateImpl, CopyAssignmentFromAnEmptySourceKeepsTheTarget) {
    fc::X509CertificateImpl target(testsupport::toDER(testsupport::rsaPKI().leaf.get()));
    const fc::X509CertificateImpl empty;
    target = empty;
    EXPECT_FALSE(target.empty());
}

TEST(X509CertificateStack, CopiesEveryCertificateInOrder) {
    const auto& pki = testsupport::rsaPKI();
    const std::vector<X509Certificate> certificates{
        X509Certificate(testsupport::toDER(pki.leaf.get())),
        X509Certificate(testsupport::toDER(pki.intermediate.get()))};
    const fc::X509StackUPtr stack =
        fc::makeX509StackUPtr(fc::getCopyOfOpenSSLX509Stack(certificates));
    ASSERT_EQ(sk_X509_num(stack.get()), 2);
    EXPECT_EQ(testsupport::toDER(sk_X509_value(stack.get(), 0)),
              testsupport::toDER(pki.leaf.get()));
    EXPECT_EQ(testsupport::toDER(sk_X509_value(stack.get(), 1)),
              testsupport::toDER(pki.intermediate.get()));

    const fc::X509StackUPtr none = fc::makeX509StackUPtr(fc::getCopyOfOpenSSLX509Stack({}));
    ASSERT_TRUE(none);
    EXPECT_EQ(sk_X509_num(none.get()), 0);

    EXPECT_THROW_MSG(fc::getCopyOfOpenSSLX509Stack({certificates[0], X509Certificate()}),
                     fc::X509CertificateException, "Error: X509Certificate has no content.");
}

}  // namespace
