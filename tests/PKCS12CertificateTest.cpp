// Opening PKCS#12 containers: passphrases, algorithms, key kinds, refusals and the value rules.
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"
#include "support/TestPKCS12.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS12Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pkcs12.h>

#include <chrono>
#include <climits>
#include <sstream>
#include <thread>
#include <tuple>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::PKCS12Certificate;
using fc::X509Certificate;
using testsupport::KeyKind;
using testsupport::kPKCS12Passphrase;
using testsupport::PKCS12Recipe;

namespace {

ByteArray bigNumberParameter(const EVP_PKEY* key, const char* name) {
    BIGNUM* raw = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(key, name, &raw), 1);
    const fc::BNUPtr number = fc::makeBNUPtr(raw);
    ByteArray bytes(static_cast<std::size_t>(BN_num_bytes(number.get())));
    BN_bn2bin(number.get(), bytes.data());
    return bytes;
}

X509Certificate certificateOf(const X509* certificate) {
    return X509Certificate(testsupport::toDER(certificate));
}

// A caller's leftover error must not survive a load, whether it succeeds or not.
void queueCallersError() { ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR); }

class PKCS12Test : public ::testing::Test {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const PKCS12Recipe full{
        pki.leafKey.get(), pki.leaf.get(), {pki.intermediate.get(), pki.root.get()}};

    void TearDown() override { ERR_clear_error(); }
};

TEST_F(PKCS12Test, OpensEitherAlgorithmIntoTheLibrarysTypes) {
    const ByteArray d = bigNumberParameter(pki.leafKey.get(), OSSL_PKEY_PARAM_RSA_D);
    for (const auto algorithms :
         {testsupport::PKCS12Algorithms::Default, testsupport::PKCS12Algorithms::Legacy}) {
        PKCS12Recipe recipe = full;
        recipe.algorithms = algorithms;
        const ByteArray der = testsupport::makePKCS12(recipe);
        queueCallersError();
        const PKCS12Certificate container(der, kPKCS12Passphrase);
        EXPECT_EQ(ERR_peek_error(), 0u);

        EXPECT_EQ(container.getCertificate(), certificateOf(pki.leaf.get()));
        EXPECT_EQ(container.getCAChain().getCertificates(),
                  (std::vector<X509Certificate>{certificateOf(pki.intermediate.get()),
                                                certificateOf(pki.root.get())}));
        EXPECT_EQ(container.getPrivateKeyInfo(), fc::PrivateKeyInfo(d));
        EXPECT_EQ(container.getPrivateExponent(), d);
        EXPECT_EQ(PKCS12Certificate(container.getAsBytes(), kPKCS12Passphrase), container);
        std::istringstream stream(std::string(der.begin(), der.end()));
        EXPECT_EQ(PKCS12Certificate(stream, kPKCS12Passphrase), container);
    }
}

TEST_F(PKCS12Test, PrintsCertificateAndChain) {
    const PKCS12Certificate container(testsupport::makePKCS12(full), kPKCS12Passphrase);
    std::ostringstream printed;
    printed << container;
    std::ostringstream expected;
    expected << "Printing PKCS12 certificate.\nCertificate: \n"
             << container.getCertificate() << std::endl
             << "CA Chain: \n"
             << container.getCAChain() << std::endl;
    EXPECT_EQ(printed.str(), expected.str());
}

TEST_F(PKCS12Test, WrongPassphraseIsAlwaysIncorrectPassphrase) {
    PKCS12Recipe legacy = full;
    legacy.algorithms = testsupport::PKCS12Algorithms::Legacy;
    PKCS12Recipe noMAC = full;
    noMAC.mac = false;
    // OpenSSL 3.0 queues no error for a MAC that does not match: the reason is empty.
    const std::string prefix = "Input passphrase is incorrect. OpenSSL error message=";
    const std::tuple<PKCS12Recipe, std::string, std::string> cases[] = {
        {full, "wrong", ""},
        {legacy, "wrong", ""},
        {noMAC, "wrong", "mac absent"},
        {noMAC, kPKCS12Passphrase, "mac absent"}};
    for (const auto& [recipe, passphrase, reason] : cases) {
        const ByteArray der = testsupport::makePKCS12(recipe);
        queueCallersError();
        EXPECT_THROW_MSG(PKCS12Certificate(der, passphrase), fc::IncorrectPassphrase,
                         prefix + reason);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST_F(PKCS12Test, KeyOnlyAndCertificatesOnly) {
    EVP_PKEY* key = testsupport::sharedKey(KeyKind::RSA2048);
    const PKCS12Certificate keyOnly(testsupport::makePKCS12(PKCS12Recipe{key}), kPKCS12Passphrase);
    EXPECT_TRUE(keyOnly.getCertificate().empty());
    EXPECT_TRUE(keyOnly.getCAChain().empty());
    EXPECT_EQ(keyOnly.getPrivateExponent(), bigNumberParameter(key, OSSL_PKEY_PARAM_RSA_D));

    // Without a key nothing pairs with a certificate, so OpenSSL hands every one back as "other".
    const PKCS12Certificate certificatesOnly(
        testsupport::makePKCS12(PKCS12Recipe{nullptr, pki.leaf.get(), {pki.root.get()}}),
        kPKCS12Passphrase);
    EXPECT_TRUE(certificatesOnly.getCertificate().empty());
    EXPECT_EQ(certificatesOnly.getCAChain().getCertificates(),
              (std::vector<X509Certificate>{certificateOf(pki.leaf.get()),
                                            certificateOf(pki.root.get())}));
    EXPECT_FALSE(certificatesOnly.getPrivateKeyInfo().has_value());
    EXPECT_TRUE(certificatesOnly.getPrivateExponent().empty());
}

PKCS12Certificate openWithSelfSigned(KeyKind kind) {
    EVP_PKEY* key = testsupport::sharedKey(kind);
    const fc::X509UPtr certificate = testsupport::selfSignedFor(key);
    return PKCS12Certificate(testsupport::makePKCS12(PKCS12Recipe{key, certificate.get()}),
                             kPKCS12Passphrase);
}

TEST(PKCS12Keys, EllipticCurveKeysAndRefusedKeys) {
    ByteArray raw(32);
    std::size_t length = raw.size();
    EVP_PKEY_get_raw_private_key(testsupport::sharedKey(KeyKind::Ed25519), raw.data(), &length);
    EXPECT_EQ(openWithSelfSigned(KeyKind::Ed25519).getPrivateKeyInfo(),
              fc::PrivateKeyInfo(raw, fc::EllipticCurve::Ed25519));
    const PKCS12Certificate p256 = openWithSelfSigned(KeyKind::P256);
    const ByteArray priv =
        bigNumberParameter(testsupport::sharedKey(KeyKind::P256), OSSL_PKEY_PARAM_PRIV_KEY);
    EXPECT_EQ(p256.getPrivateKeyInfo(), fc::PrivateKeyInfo(priv, fc::EllipticCurve::Prime256v1));
    EXPECT_THROW_MSG(p256.getPrivateExponent(), fc::NotRSAKey,
                     "Cannot get the private exponent from the key because it is not an RSA key.");

    EXPECT_THROW_MSG(openWithSelfSigned(KeyKind::RSA512), fc::PKCS12CertificateException,
                     "Error: Unable to parse X509 certificate(s) inside PKCS12 certificate.RSA key "
                     "size does not meet minimum cryptographic requirements");
    EXPECT_THROW_MSG(openWithSelfSigned(KeyKind::P384), fc::UnsupportedEllipticCurve,
                     "Unsupported elliptic curve in X509 Certificate in PKCS12: ECC-based key is "
                     "not using supported ECC Curve. Curve: secp384r1");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(PKCS12Test, RefusesInputThatIsNoContainer) {
    EXPECT_THROW_MSG(PKCS12Certificate(ByteArray{}, kPKCS12Passphrase), fc::InvalidArgument,
                     "The provided PKCS12 certificate bytearray has no content.");
    std::istringstream failed("x");
    failed.setstate(std::ios_base::failbit);
    queueCallersError();
    EXPECT_THROW_MSG(PKCS12Certificate(failed, kPKCS12Passphrase), fc::InvalidArgument,
                     "The input PKCS12 certificate data stream is invalid.");
    EXPECT_EQ(ERR_peek_error(), 0u);

    const std::string pem = testsupport::toPEM(pki.root.get());
    ByteArray truncated = testsupport::makePKCS12(full);
    truncated.resize(truncated.size() / 2);
    for (const ByteArray& der :
         {ByteArray(pem.begin(), pem.end()), testsupport::toDER(pki.root.get()), truncated}) {
        // The message carries the reason OpenSSL gives for its first error.
        const fc::BIOUPtr bio =
            fc::makeBIOUPtr(BIO_new_mem_buf(der.data(), static_cast<int>(der.size())));
        PKCS12_free(d2i_PKCS12_bio(bio.get(), nullptr));
        const std::string reason = ERR_reason_error_string(ERR_peek_error());
        ERR_clear_error();
        queueCallersError();
        EXPECT_THROW_MSG(PKCS12Certificate(der, kPKCS12Passphrase), fc::PKCS12CertificateException,
                         "Error: Loading PKSC12 certificate failed. Reason=" + reason);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST_F(PKCS12Test, ValueRules) {
    PKCS12Certificate container(testsupport::makePKCS12(full), kPKCS12Passphrase);
    EXPECT_NE(container,
              PKCS12Certificate(
                  testsupport::makePKCS12({pki.leafKey.get(), pki.leaf.get(), {pki.root.get()}}),
                  kPKCS12Passphrase));
    std::ostringstream out;
    const PKCS12Certificate moved(std::move(container));
    const PKCS12Certificate& source = container;
    const char* message = "Error: PKCS12Certificate is uninitialized.";
    using E = fc::PKCS12CertificateException;
    EXPECT_THROW_MSG(source.empty(), E, message);
    EXPECT_THROW_MSG(source.getCertificate(), E, message);
    EXPECT_THROW_MSG(source.getCAChain(), E, message);
    EXPECT_THROW_MSG(source.getPrivateKeyInfo(), E, message);
    EXPECT_THROW_MSG(source.getPrivateExponent(), E, message);
    EXPECT_THROW_MSG(source.getAsBytes(), E, message);
    EXPECT_THROW_MSG(source.print(out), E, message);
    EXPECT_THROW_MSG(out << source, E, message);
    EXPECT_THROW_MSG(source == moved, E, message);
    EXPECT_THROW_MSG(moved != source, E, message);
    EXPECT_THROW_MSG(PKCS12Certificate{source}, E, message);
    // Assignment brings it back.
    container = moved;
    EXPECT_EQ(container, moved);
}

// The bound is process-wide: every test that sets one lifts it again.
class PKCS12IterationLimit : public PKCS12Test {
  protected:
    void TearDown() override {
        fc::setMaximumPKCS12Iterations(0);
        PKCS12Test::TearDown();
    }

    static std::string overLimit(std::uint64_t count, std::uint64_t limit) {
        return "Error: PKCS12 certificate iteration count " + std::to_string(count) +
               " exceeds the limit of " + std::to_string(limit) + ".";
    }
};

TEST_F(PKCS12IterationLimit, HugeMACCountFailsBeforeAnyDerivation) {
    // Deriving this MAC would take minutes, whatever the passphrase.
    const ByteArray der = testsupport::withMACIterations(testsupport::makePKCS12(full), INT_MAX);
    fc::setMaximumPKCS12Iterations(10'000'000);
    for (const char* passphrase : {kPKCS12Passphrase, "wrong"}) {
        queueCallersError();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_THROW_MSG(PKCS12Certificate(der, passphrase), fc::PKCS12CertificateException,
                         overLimit(INT_MAX, 10'000'000));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

// Every other count sits exactly at the limit, so only the named one can trip it.
TEST_F(PKCS12IterationLimit, EachDerivationIsBoundedAndTheBoundIsOptIn) {
    EXPECT_EQ(fc::getMaximumPKCS12Iterations(), 0u);
    constexpr int kLimit = 1000;
    constexpr int kOver = 5000;
    const std::pair<const char*, testsupport::PKCS12Iterations> cases[] = {
        {"MAC", {kOver, kLimit, kLimit, false}},
        {"encrypted part", {kLimit, kOver, kLimit, false}},
        {"shrouded key", {kLimit, kLimit, kOver, false}},
        {"shrouded key inside the encrypted part", {kLimit, kLimit, kOver, true}},
    };
    for (const auto& [where, iterations] : cases) {
        SCOPED_TRACE(where);
        PKCS12Recipe recipe = full;
        recipe.iterations = iterations;
        const ByteArray der = testsupport::makePKCS12(recipe);

        fc::setMaximumPKCS12Iterations(kLimit);
        queueCallersError();
        EXPECT_THROW_MSG(PKCS12Certificate(der, kPKCS12Passphrase), fc::PKCS12CertificateException,
                         overLimit(kOver, kLimit));
        EXPECT_EQ(ERR_peek_error(), 0u);

        // The limit is inclusive, and without one the same container opens as it always has.
        fc::setMaximumPKCS12Iterations(kOver);
        const PKCS12Certificate atLimit(der, kPKCS12Passphrase);
        fc::setMaximumPKCS12Iterations(0);
        EXPECT_EQ(PKCS12Certificate(der, kPKCS12Passphrase), atLimit);
        EXPECT_TRUE(atLimit.getPrivateKeyInfo().has_value());
    }
}

TEST_F(PKCS12IterationLimit, LegacyEncryptionCountsToo) {
    PKCS12Recipe legacy = full;
    legacy.algorithms = testsupport::PKCS12Algorithms::Legacy;
    legacy.iterations.mac = 1000;
    const ByteArray der = testsupport::makePKCS12(legacy);
    fc::setMaximumPKCS12Iterations(1000);
    EXPECT_THROW_MSG(PKCS12Certificate(der, kPKCS12Passphrase), fc::PKCS12CertificateException,
                     overLimit(2048, 1000));
    // Within the limit the usual answers come back: a wrong passphrase is still just that.
    fc::setMaximumPKCS12Iterations(2048);
    EXPECT_NO_THROW(PKCS12Certificate(der, kPKCS12Passphrase));
    EXPECT_THROW(PKCS12Certificate(der, "wrong"), fc::IncorrectPassphrase);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST_F(PKCS12IterationLimit, ConcurrencyOfSettingWhileLoading) {
    PKCS12Recipe recipe = full;
    recipe.iterations.mac = 3000;
    const ByteArray der = testsupport::makePKCS12(recipe);
    std::thread setter([] {
        for (std::uint64_t limit = 0; limit < 200; ++limit) {
            fc::setMaximumPKCS12Iterations(limit % 2 == 0 ? 0 : 1000);
        }
    });
    // Each load sees one limit or the other, never a torn one.
    for (int i = 0; i < 4; ++i) {
        try {
            PKCS12Certificate(der, kPKCS12Passphrase);
        } catch (const fc::PKCS12CertificateException& e) {
            EXPECT_EQ(std::string(e.what()), overLimit(3000, 1000));
        }
    }
    setter.join();
}

}  // namespace
