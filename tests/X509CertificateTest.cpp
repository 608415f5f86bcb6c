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
using testsupport::toDER;
using testsupport::toPEM;

namespace {

const testsupport::TestPKI& pki() { return testsupport::rsaPKI(); }
std::string textOf(const ByteArray& bytes) { return std::string(bytes.begin(), bytes.end()); }

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
        EXPECT_TRUE(invalidArgument
                        ? dynamic_cast<const fc::InvalidArgument*>(&e) != nullptr
                        : dynamic_cast<const fc::X509CertificateException*>(&e) != nullptr);
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(X509CertificateLoading, EveryEncodingGivesTheSameDER) {
    const ByteArray der = toDER(pki().leaf.get());
    const std::string pem = toPEM(pki().leaf.get());
    std::istringstream stream(pem);
    ERR_raise(ERR_LIB_USER, 1);  // the caller's queued error is cleared too
    for (const X509Certificate& certificate :
         {X509Certificate(der), X509Certificate(pem),
          X509Certificate(ByteArray(pem.begin(), pem.end())),
          X509Certificate("Some text before the block\n\n" + pem), X509Certificate(stream),
          X509Certificate(textOf(der) + std::string("\x00\x01\x02", 3)),  // trailing bytes
          X509Certificate(pem + toPEM(pki().root.get()))}) {              // the first block only
        EXPECT_EQ(certificate.getAsBytes(), der);
    }
    EXPECT_EQ(ERR_peek_error(), 0u);
}

// A certificate whose DER has exactly the given size, padded through a comment extension.
X509Certificate certificateOfSize(std::size_t derSize) {
    testsupport::CertificateRecipe recipe;
    recipe.key = testsupport::sharedKey(KeyKind::Ed25519);
    for (std::size_t padding = 1; padding < 2000; ++padding) {
        recipe.extensions = {{NID_netscape_comment, std::string(padding, 'x')}};
        const ByteArray der = toDER(testsupport::makeCertificate(recipe).get());
        if (der.size() == derSize) return X509Certificate(der);
    }
    throw std::runtime_error("no certificate of that size");
}

TEST(X509CertificatePEM, Has63CharacterLinesAndLoadsBack) {
    // 1000 bytes make 21 full lines and one of 13; 756 bytes exactly 16 full lines, no empty one.
    for (const X509Certificate& certificate : {certificateOfSize(1000), certificateOfSize(756)}) {
        const std::string body = fc::base64Encode(certificate.getAsBytes());
        std::string expected = "-----BEGIN CERTIFICATE-----\n";
        for (std::size_t i = 0; i < body.size(); i += 63) expected += body.substr(i, 63) + "\n";
        const std::string pem = certificate.getAsPEMString();
        EXPECT_EQ(pem, expected + "-----END CERTIFICATE-----\n");
        EXPECT_EQ(certificate.getAsString(), body);
        EXPECT_EQ(X509Certificate(pem), certificate);
    }
}

class ThrowingBuffer : public std::streambuf {
  protected:
    int_type underflow() override { throw std::runtime_error("device unplugged"); }
};

TEST(X509CertificateLoading, RefusedInputNamesTheEncodingOrOpenSSLsReason) {
    const std::string empty = "The input certificate has no content.";
    const std::string badStream = "The input certificate data stream is invalid.";
    expectRefused([] { X509Certificate{std::string()}; }, true, empty);
    expectRefused([] { X509Certificate{ByteArray()}; }, true, empty);
    std::istringstream drained("abc"), failed(toPEM(pki().leaf.get())), atEnd(failed.str());
    drained.ignore(3);
    failed.setstate(std::ios_base::failbit);
    atEnd.setstate(std::ios_base::eofbit);
    expectRefused([&] { X509Certificate{drained}; }, true, empty);
    expectRefused([&] { X509Certificate{failed}; }, true, badStream);
    expectRefused([&] { X509Certificate{atEnd}; }, true, badStream);
    ThrowingBuffer buffer;
    std::istream throwing(&buffer);
    expectRefused([&] { X509Certificate{throwing}; }, true, badStream + " Reason:device unplugged");

    const std::string notDER =
        "Input certificate data was autodetected to be DER-encoded, but "
        "is not in DER encoding. Please verify the input data.";
    const std::string reason = "Error: Loading a certificate failed. Reason=";
    const std::string der = textOf(toDER(pki().leaf.get()));
    std::string wrongTag = der;
    wrongTag[0] = 0x31;  // SET instead of SEQUENCE
    for (const auto& [input, invalidArgument, message] :
         std::vector<std::tuple<std::string, bool, std::string>>{
             {wrongTag, true, notDER},
             // The header is found, but not at the start of a line, so OpenSSL sees no block.
             {"xx -----BEGIN CERTIFICATE----- yy\n", true,
              "Input certificate data was autodetected to be PEM-encoded, but is not in PEM "
              "encoding. Please verify the input data."},
             {"-----BEGIN CERTIFICATE-----", false, reason + "bad end line"},
             {"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE", false,
              reason + "bad end line"},
             {"-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n", false,
              reason + "bad base64 decode"},
             // An empty block queues no error at all: nothing follows "Reason=".
             {"-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n", false, reason}}) {
        expectRefused([&text = input] { X509Certificate{text}; }, invalidArgument, message);
    }
    for (const std::string& broken :
         {der.substr(0, 100), std::string("\x30\x82\xff"), std::string("\x30\x00", 2)}) {
        const std::string openssl = opensslDerReason(broken);
        expectRefused([&] { X509Certificate{broken}; }, false, reason + openssl);
    }
}

TEST(X509CertificateLoading, KeyCheckRefusesWeakAndUnsupportedKeys) {
    const std::string weakRSA = "RSA key size does not meet minimum cryptographic requirements";
    for (const auto& [kind, message] : std::vector<std::pair<KeyKind, std::string>>{
             {KeyKind::RSA1024, ""},
             {KeyKind::P256, ""},
             {KeyKind::Ed25519, ""},
             {KeyKind::RSA1023, weakRSA},
             {KeyKind::RSA512, weakRSA},
             {KeyKind::P384, "ECC-based key is not using supported ECC Curve. Curve: secp384r1"},
             {KeyKind::Ed448, "Key uses Ed448, which is not currently supported"},
             {KeyKind::DSA, "Key is not currently supported. OpenSSL type id: 116"}}) {
        SCOPED_TRACE(testsupport::keyKindName(kind));
        testsupport::CertificateRecipe recipe;
        recipe.key = testsupport::sharedKey(kind);
        const fc::X509UPtr x = testsupport::makeCertificate(recipe);
        if (message.empty()) {
            EXPECT_NO_THROW(X509Certificate{toPEM(x.get())});
            EXPECT_NO_THROW(X509Certificate{x.get()});
        } else {
            EXPECT_THROW_MSG(X509Certificate{toPEM(x.get())}, fc::CertificateException, message);
            EXPECT_THROW_MSG(X509Certificate{x.get()}, fc::CertificateException, message);
        }
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST(X509CertificateLifetime, EmptyAndMovedFromRefuseEverything) {
    const std::string noContent = "Error: X509Certificate has no content.";
    const X509Certificate empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_THROW_MSG(empty.getAsBytes(), fc::X509CertificateException, noContent);
    EXPECT_THROW_MSG(empty.getOpenSSLCertificate(), fc::X509CertificateException, noContent);
    EXPECT_THROW_MSG(empty == empty, fc::X509CertificateException, noContent);
    EXPECT_THROW_MSG(X509Certificate(static_cast<const X509*>(nullptr)),
                     fc::X509CertificateException, noContent);

    X509Certificate source(toDER(pki().leaf.get()));
    X509Certificate target(std::move(source));
    const std::string message = "Error: X509Certificate is uninitialized.";
    EXPECT_THROW_MSG(source.empty(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source.getAsBytes(), fc::X509CertificateException, message);
    EXPECT_THROW_MSG(source == target, fc::X509CertificateException, message);
    EXPECT_THROW_MSG(target == source, fc::X509CertificateException, message);
    EXPECT_THROW_MSG(X509Certificate{source}, fc::X509CertificateException, message);
    source = target;  // assignment brings it back
    EXPECT_EQ(source, target);

    // Move assignment and swap exchange.
    X509Certificate root(toDER(pki().root.get()));
    root.swap(target);
    target = std::move(root);
    EXPECT_EQ(target.getAsBytes(), toDER(pki().leaf.get()));
    EXPECT_EQ(root.getAsBytes(), toDER(pki().root.get()));
}

TEST(X509CertificateLifetime, CopiesShareClonesAndOpenSSLCopiesDuplicate) {
    const X509Certificate original(toDER(pki().leaf.get()));
    X509Certificate assigned;
    assigned = original;
    EXPECT_EQ(X509Certificate(original), original);
    EXPECT_EQ(assigned, original);
    EXPECT_EQ(original.clone(), original);

    const fc::X509UPtr mine = fc::makeX509UPtr(original.getOpenSSLCertificate());
    const fc::X509UPtr again = fc::makeX509UPtr(original.getOpenSSLCertificate());
    EXPECT_NE(mine.get(), again.get());
    EXPECT_EQ(toDER(mine.get()), original.getAsBytes());

    // The caller's certificate is copied, not kept.
    const X509Certificate fromCallers(mine.get());
    ASN1_INTEGER_set(X509_get_serialNumber(mine.get()), 99);
    EXPECT_EQ(fromCallers.getSerialNumber(), "3");
}

TEST(X509CertificateStack, CopiesEveryCertificateInOrder) {
    const std::vector<X509Certificate> certificates{X509Certificate(pki().leaf.get()),
                                                    X509Certificate(pki().intermediate.get())};
    const fc::X509StackUPtr stack =
        fc::makeX509StackUPtr(fc::getCopyOfOpenSSLX509Stack(certificates));
    ASSERT_EQ(sk_X509_num(stack.get()), 2);
    EXPECT_EQ(toDER(sk_X509_value(stack.get(), 0)), toDER(pki().leaf.get()));
    EXPECT_EQ(toDER(sk_X509_value(stack.get(), 1)), toDER(pki().intermediate.get()));
    EXPECT_EQ(sk_X509_num(fc::makeX509StackUPtr(fc::getCopyOfOpenSSLX509Stack({})).get()), 0);
    EXPECT_THROW_MSG(fc::getCopyOfOpenSSLX509Stack({certificates[0], X509Certificate()}),
                     fc::X509CertificateException, "Error: X509Certificate has no content.");
}

}  // namespace
