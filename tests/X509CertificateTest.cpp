// Loading, serialising, copying and moving certificates.
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
#include <tuple>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::X509Certificate;
using testsupport::KeyKind;

namespace {

std::string textOf(const ByteArray& bytes) { return std::string(bytes.begin(), bytes.end()); }
ByteArray leafDER() { return testsupport::toDER(testsupport::rsaPKI().leaf.get()); }

// The reason OpenSSL itself gives for the first error when parsing the bytes as DER.
std::string opensslDerReason(const std::string& der) {
    ERR_clear_error();
    fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new_mem_buf(der.data(), static_cast<int>(der.size())));
    X509_free(d2i_X509_bio(bio.get(), nullptr));
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    ERR_clear_error();
    return reason != nullptr ? reason : "";
}

// The load fails with the exact message, as InvalidArgument (input the library refuses itself)
// or X509CertificateException (input OpenSSL refuses), and leaves the error queue empty.
void expectRefused(const std::function<void()>& load, bool invalidArgument,
                   const std::string& message) {
    try {
        load();
        ADD_FAILURE() << "loaded, expected: " << message;
    } catch (const fc::CertificateException& e) {
        EXPECT_EQ(std::string(e.what()), message);
        EXPECT_EQ(dynamic_cast<const fc::InvalidArgument*>(&e) != nullptr, invalidArgument);
        EXPECT_EQ(dynamic_cast<const fc::X509CertificateException*>(&e) != nullptr,
                  !invalidArgument);
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(X509CertificateLoading, EveryEncodingGivesTheSameDER) {
    for (const auto* pki : {&testsupport::rsaPKI(), &testsupport::ecPKI()}) {
        const ByteArray der = testsupport::toDER(pki->leaf.get());
        const std::string pem = testsupport::toPEM(pki->leaf.get());
        std::istringstream stream(pem);
        ERR_raise(ERR_LIB_USER, 1);  // the caller's queued error is cleared too
        const std::vector<X509Certificate> loaded{
            X509Certificate(der),
            X509Certificate(pem),
            X509Certificate(ByteArray(pem.begin(), pem.end())),
            X509Certificate("Some text before the block\n\n" + pem),
            X509Certificate(stream),
            X509Certificate(textOf(der) + std::string("\x00\x01\x02", 3)),  // trailing bytes
            X509Certificate(pem + testsupport::toPEM(pki->root.get()))};    // first block only
        EXPECT_EQ(ERR_peek_error(), 0u);
        for (const X509Certificate& certificate : loaded) EXPECT_EQ(certificate.getAsBytes(), der);
    }
}

// A certificate whose DER has exactly the given size, padded through a comment extension.
X509Certificate certificateOfSize(std::size_t derSize) {
    testsupport::CertificateRecipe recipe;
    recipe.key = testsupport::sharedKey(KeyKind::Ed25519);
    for (std::size_t padding = 1; padding < 2000; ++padding) {
        recipe.extensions = {{NID_netscape_comment, std::string(padding, 'x')}};
        const ByteArray der = testsupport::toDER(testsupport::makeCertificate(recipe).get());
        if (der.size() == derSize) return X509Certificate(der);
    }
    throw std::runtime_error("no certificate of that size");
}

TEST(X509CertificatePEM, Has63CharacterLinesAndLoadsBack) {
    // 1000 bytes make 21 full lines and one of 13; 756 bytes exactly 16 full lines, no empty one.
    for (const X509Certificate& certificate :
         {X509Certificate(leafDER()),
          X509Certificate(testsupport::toDER(testsupport::ecPKI().leaf.get())),
          certificateOfSize(1000), certificateOfSize(756)}) {
        const std::string body = fc::base64Encode(certificate.getAsBytes());
        std::string expected = "-----BEGIN CERTIFICATE-----\n";
        for (std::size_t i = 0; i < body.size(); i += 63) expected += body.substr(i, 63) + "\n";
        expected += "-----END CERTIFICATE-----\n";
        const std::string pem = certificate.getAsPEMString();
        EXPECT_EQ(pem, expected);
        EXPECT_EQ(certificate.getAsString(), body);
        EXPECT_EQ(X509Certificate(pem), certificate);
    }
}

class ThrowingBuffer : public std::streambuf {
  protected:
    int_type underflow() override { throw std::runtime_error("device unplugged"); }
};

TEST(X509CertificateLoading, BadStreamsAndEmptyInput) {
    const std::string empty = "The input certificate has no content.";
    const std::string invalid = "The input certificate data stream is invalid.";
    expectRefused([] { X509Certificate{std::string()}; }, true, empty);
    expectRefused([] { X509Certificate{ByteArray()}; }, true, empty);
    std::istringstream drained("abc");
    drained.ignore(3);
    expectRefused([&] { X509Certificate{drained}; }, true, empty);
    for (const auto state : {std::ios_base::failbit, std::ios_base::eofbit}) {
        std::istringstream stream(testsupport::toPEM(testsupport::rsaPKI().leaf.get()));
        stream.setstate(state);
        expectRefused([&] { X509Certificate{stream}; }, true, invalid);
    }
    ThrowingBuffer buffer;
    std::istream throwing(&buffer);
    expectRefused([&] { X509Certificate{throwing}; }, true, invalid + " Reason:device unplugged");
}

TEST(X509CertificateLoading, DamagedInputNamesTheEncodingOrOpenSSLsReason) {
    const std::string notDER =
        "Input certificate data was autodetected to be DER-encoded, but is "
        "not in DER encoding. Please verify the input data.";
    const std::string failed = "Error: Loading a certificate failed. Reason=";
    const std::string der = textOf(leafDER());
    std::string wrongTag = der;
    wrongTag[0] = 0x31;  // SET instead of SEQUENCE
    std::string lowerCase = testsupport::toPEM(testsupport::rsaPKI().leaf.get());
    lowerCase.replace(0, 27, "-----begin certificate-----");
    const std::vector<std::tuple<std::string, bool, std::string>> cases{
        {wrongTag, true, notDER},
        {lowerCase, true, notDER},
        // The header is found, but not at the start of a line, so OpenSSL sees no block.
        {"xx -----BEGIN CERTIFICATE----- yy\n", true,
         "Input certificate data was autodetected to be PEM-encoded, but is not in PEM "
         "encoding. Please verify the input data."},
        {"-----BEGIN CERTIFICATE-----", false, failed + "bad end line"},
        {"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE", false, failed + "bad end line"},
        {"-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n", false,
         failed + "bad base64 decode"},
        // An empty block queues no error at all: nothing follows "Reason=".
        {"-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n", false, failed},
    };
    for (const auto& [input, invalidArgument, message] : cases) {
        expectRefused([&] { X509Certificate{input}; }, invalidArgument, message);
    }
    for (const std::string& broken :
         {der.substr(0, 100), std::string("\x30\x82\xff"), std::string("\x30\x00", 2)}) {
        const std::string reason = opensslDerReason(broken);
        expectRefused([&] { X509Certificate{broken}; }, false, failed + reason);
    }
}

struct KeyRuleCase {
    KeyKind kind;
    std::string message;  // empty: loads
};

class LoadTimeKeyCheck : public ::testing::TestWithParam<KeyRuleCase> {};

TEST_P(LoadTimeKeyCheck, RefusesWeakAndUnsupportedKeys) {
    testsupport::CertificateRecipe recipe;
    recipe.key = testsupport::sharedKey(GetParam().kind);
    const fc::X509UPtr x = testsupport::makeCertificate(recipe);
    const std::string& message = GetParam().message;
    for (const std::function<X509Certificate()>& load :
         std::vector<std::function<X509Certificate()>>{
             [&] { return X509Certificate(testsupport::toDER(x.get())); },
             [&] { return X509Certificate(testsupport::toPEM(x.get())); },
             [&] { return X509Certificate(x.get()); }}) {
        if (message.empty()) {
            EXPECT_NO_THROW(load());
        } else {
            EXPECT_THROW_MSG(load(), fc::CertificateException, message);
        }
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

const std::string kWeakRSA = "RSA key size does not meet minimum cryptographic requirements";

INSTANTIATE_TEST_SUITE_P(
    X509Certificate, LoadTimeKeyCheck,
    ::testing::Values(
        KeyRuleCase{KeyKind::RSA1024, ""}, KeyRuleCase{KeyKind::P256, ""},
        KeyRuleCase{KeyKind::Ed25519, ""}, KeyRuleCase{KeyKind::RSA1023, kWeakRSA},
        KeyRuleCase{KeyKind::RSA512, kWeakRSA},
        KeyRuleCase{KeyKind::P384,
                    "ECC-based key is not using supported ECC Curve. Curve: secp384r1"},
        KeyRuleCase{KeyKind::Ed448, "Key uses Ed448, which is not currently supported"},
        KeyRuleCase{KeyKind::DSA, "Key is not currently supported. OpenSSL type id: 116"}),
    [](const auto& info) { return testsupport::keyKindName(info.param.kind); });

TEST(X509CertificateLifetime, DefaultConstructedHasNoContent) {
    const X509Certificate certificate;
    const std::string message = "Error: X509Certificate has no content.";
    EXPECT_TRUE(certificate.empty());
    EXPECT_THROW_MSG(certificate.getAsBytes(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(certificate.getOpenSSLCertificate(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(certificate == certificate, fc::X509CertificateException, message);
    EXPECT_THROW_MSG(X509Certificate(static_cast<const X509*>(nullptr)),
                     fc::X509CertificateException, message);
}

TEST(X509CertificateLifetime, MovedFromIsUninitialisedUntilAssigned) {
    const auto& pki = testsupport::rsaPKI();
    X509Certificate source(leafDER());
    X509Certificate target(std::move(source));
    const std::string message = "Error: X509Certificate is uninitialized.";
    std::ostringstream out;
    EXPECT_THROW_MSG(source.empty(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.getAsBytes(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.print(out), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source == target, fc::X509CertificateException, message);
    EXPECT_THROW_MSG(target == source, fc::X509CertificateException, message);
    EXPECT_THROW_MSG(X509Certificate{source}, fc::X509CertificateException, message);
    EXPECT_EQ(out.str(), "");
    source = target;  // assignment brings it back
    EXPECT_EQ(source, target);

    // Move assignment and swap exchange.
    X509Certificate root(testsupport::toDER(pki.root.get()));
    root.swap(target);
    EXPECT_EQ(root.getAsBytes(), leafDER());
    target = std::move(root);
    EXPECT_EQ(target.getAsBytes(), leafDER());
    EXPECT_EQ(root.getAsBytes(), testsupport::toDER(pki.root.get()));
}

TEST(X509CertificateLifetime, CopiesShareClonesAndOpenSSLCopiesDuplicate) {
    const X509Certificate original(leafDER());
    X509Certificate assigned;
    assigned = original;
    EXPECT_EQ(X509Certificate(original), original);
    EXPECT_EQ(assigned, original);
    EXPECT_EQ(original.clone(), original);

    const fc::X509UPtr mine = fc::makeX509UPtr(original.getOpenSSLCertificate());
    const fc::X509UPtr again = fc::makeX509UPtr(original.getOpenSSLCertificate());
    EXPECT_NE(mine.get(), again.get());
    EXPECT_EQ(testsupport::toDER(mine.get()), original.getAsBytes());

    // The caller's certificate is copied, not kept.
    const X509Certificate fromCallers(mine.get());
    ASN1_INTEGER_set(X509_get_serialNumber(mine.get()), 99);
    EXPECT_EQ(fromCallers.getSerialNumber(), "3");
}

TEST(X509CertificateStack, CopiesEveryCertificateInOrder) {
    const auto& pki = testsupport::rsaPKI();
    const std::vector<X509Certificate> certificates{
        X509Certificate(leafDER()), X509Certificate(testsupport::toDER(pki.intermediate.get()))};
    const fc::X509StackUPtr stack =
        fc::makeX509StackUPtr(fc::getCopyOfOpenSSLX509Stack(certificates));
    ASSERT_EQ(sk_X509_num(stack.get()), 2);
    EXPECT_EQ(testsupport::toDER(sk_X509_value(stack.get(), 0)), leafDER());
    EXPECT_EQ(testsupport::toDER(sk_X509_value(stack.get(), 1)),
              testsupport::toDER(pki.intermediate.get()));
    const fc::X509StackUPtr none = fc::makeX509StackUPtr(fc::getCopyOfOpenSSLX509Stack({}));
    ASSERT_TRUE(none);
    EXPECT_EQ(sk_X509_num(none.get()), 0);
    EXPECT_THROW_MSG(fc::getCopyOfOpenSSLX509Stack({certificates[0], X509Certificate()}),
                     fc::X509CertificateException, "Error: X509Certificate has no content.");
}

}  // namespace
