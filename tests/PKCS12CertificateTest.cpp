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
#include <openssl/provider.h>

#include <functional>
#include <sstream>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::PKCS12Certificate;
using fc::X509Certificate;
using testsupport::KeyKind;
using testsupport::kPKCS12Passphrase;
using testsupport::PKCS12Algorithms;
using testsupport::PKCS12Recipe;

namespace {

const std::string kWrongPassphrase = "wrong";

ByteArray bigNumberParameter(const EVP_PKEY* key, const char* name) {
    BIGNUM* raw = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(key, name, &raw), 1);
    const fc::BNUPtr number = fc::makeBNUPtr(raw);
    ByteArray bytes(static_cast<std::size_t>(BN_num_bytes(number.get())));
    BN_bn2bin(number.get(), bytes.data());
    return bytes;
}

// The reason OpenSSL gives for its first error when reading the bytes as a PKCS#12 structure.
std::string opensslReasonForDER(const ByteArray& der) {
    ERR_clear_error();
    const fc::BIOUPtr bio = fc::makeBIOUPtr(BIO_new(BIO_s_mem()));
    BIO_write(bio.get(), der.data(), static_cast<int>(der.size()));
    PKCS12_free(d2i_PKCS12_bio(bio.get(), nullptr));
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    ERR_clear_error();
    return reason != nullptr ? reason : "";
}

X509Certificate toCertificate(const X509* certificate) {
    return X509Certificate(testsupport::toDER(certificate));
}

// Leaf, key and the rest of the test PKI, in the algorithms of the parameter.
class PKCS12WithChain : public ::testing::TestWithParam<PKCS12Algorithms> {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();

    PKCS12Recipe fullRecipe() const {
        PKCS12Recipe recipe;
        recipe.key = pki.leafKey.get();
        recipe.certificate = pki.leaf.get();
        recipe.caChain = {pki.intermediate.get(), pki.root.get()};
        recipe.algorithms = GetParam();
        return recipe;
    }
};

TEST_P(PKCS12WithChain, OpensIntoTheLibrarysTypes) {
    const ByteArray der = testsupport::makePKCS12(fullRecipe());
    const PKCS12Certificate container(der, kPKCS12Passphrase);

    EXPECT_FALSE(container.empty());
    EXPECT_EQ(container.getCertificate(), toCertificate(pki.leaf.get()));
    EXPECT_EQ(container.getCAChain().getCertificates(),
              (std::vector<X509Certificate>{toCertificate(pki.intermediate.get()),
                                            toCertificate(pki.root.get())}));
    const ByteArray d = bigNumberParameter(pki.leafKey.get(), OSSL_PKEY_PARAM_RSA_D);
    const auto key = container.getPrivateKeyInfo();
    ASSERT_TRUE(key.has_value());
    EXPECT_EQ(key->getType(), fc::KeyType::RSA);
    EXPECT_EQ(key->getRSAPrivateExponent(), d);
    EXPECT_EQ(container.getPrivateExponent(), d);
    EXPECT_EQ(container.getAsBytes(), der);
    EXPECT_EQ(ERR_peek_error(), 0u);

    std::istringstream stream(std::string(der.begin(), der.end()));
    EXPECT_EQ(PKCS12Certificate(stream, kPKCS12Passphrase), container);
}

TEST_P(PKCS12WithChain, WrongPassphraseIsReportedBeforeAnythingIsParsed) {
    const ByteArray der = testsupport::makePKCS12(fullRecipe());
    // OpenSSL 3.0 queues no error for a MAC that does not match: the reason is empty.
    for (const std::string& passphrase : {kWrongPassphrase, std::string()}) {
        EXPECT_THROW_MSG(PKCS12Certificate(der, passphrase), fc::IncorrectPassphrase,
                         "Input passphrase is incorrect. OpenSSL error message=");
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST_P(PKCS12WithChain, EmptyPassphraseIsAPassphrase) {
    PKCS12Recipe recipe = fullRecipe();
    recipe.passphrase = "";
    const ByteArray der = testsupport::makePKCS12(recipe);
    EXPECT_EQ(PKCS12Certificate(der, "").getCertificate(), toCertificate(pki.leaf.get()));
    EXPECT_THROW(PKCS12Certificate(der, kWrongPassphrase), fc::IncorrectPassphrase);
}

TEST_P(PKCS12WithChain, NoMACMeansNoPassphraseOpensIt) {
    PKCS12Recipe recipe = fullRecipe();
    recipe.mac = false;
    const ByteArray der = testsupport::makePKCS12(recipe);
    for (const std::string& passphrase : {std::string(kPKCS12Passphrase), kWrongPassphrase}) {
        EXPECT_THROW_MSG(PKCS12Certificate(der, passphrase), fc::IncorrectPassphrase,
                         "Input passphrase is incorrect. OpenSSL error message=mac absent");
    }
}

TEST_P(PKCS12WithChain, GetAsBytesOpensAgainToAnEqualContainer) {
    const PKCS12Certificate container(testsupport::makePKCS12(fullRecipe()), kPKCS12Passphrase);
    const PKCS12Certificate again(container.getAsBytes(), kPKCS12Passphrase);
    EXPECT_EQ(again, container);
    EXPECT_FALSE(again != container);
    EXPECT_THROW(PKCS12Certificate(container.getAsBytes(), kWrongPassphrase),
                 fc::IncorrectPassphrase);
}

INSTANTIATE_TEST_SUITE_P(Algorithms, PKCS12WithChain,
                         ::testing::Values(PKCS12Algorithms::Default, PKCS12Algorithms::Legacy),
                         [](const auto& info) { return testsupport::algorithmsName(info.param); });

TEST(PKCS12Provider, OpeningLoadsTheLegacyProviderForTheWholeProcess) {
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    PKCS12Recipe recipe;
    recipe.certificate = pki.root.get();
    const PKCS12Certificate container(testsupport::makePKCS12(recipe), kPKCS12Passphrase);
    EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "legacy"), 1);
    // The default provider stays active next to it.
    EXPECT_EQ(OSSL_PROVIDER_available(nullptr, "default"), 1);
    EXPECT_NO_THROW(PKCS12Certificate(testsupport::makePKCS12(recipe), kPKCS12Passphrase));
}

TEST(PKCS12Contents, KeyOnly) {
    PKCS12Recipe recipe;
    recipe.key = testsupport::sharedKey(KeyKind::RSA2048);
    const PKCS12Certificate container(testsupport::makePKCS12(recipe), kPKCS12Passphrase);
    EXPECT_TRUE(container.getCertificate().empty());
    EXPECT_TRUE(container.getCAChain().empty());
    ASSERT_TRUE(container.getPrivateKeyInfo().has_value());
    EXPECT_EQ(container.getPrivateExponent(),
              bigNumberParameter(recipe.key, OSSL_PKEY_PARAM_RSA_D));
}

TEST(PKCS12Contents, CertificatesOnlyGoToTheChain) {
    // Without a key nothing pairs with a certificate, so OpenSSL hands every one back as "other".
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    PKCS12Recipe recipe;
    recipe.certificate = pki.leaf.get();
    recipe.caChain = {pki.root.get()};
    const PKCS12Certificate container(testsupport::makePKCS12(recipe), kPKCS12Passphrase);
    EXPECT_TRUE(container.getCertificate().empty());
    EXPECT_EQ(container.getCAChain().getCertificates(),
              (std::vector<X509Certificate>{toCertificate(pki.leaf.get()),
                                            toCertificate(pki.root.get())}));
    EXPECT_FALSE(container.getPrivateKeyInfo().has_value());
    EXPECT_TRUE(container.getPrivateExponent().empty());
}

class PKCS12EllipticCurve : public ::testing::Test {
  protected:
    static PKCS12Certificate open(KeyKind kind) {
        EVP_PKEY* key = testsupport::sharedKey(kind);
        const fc::X509UPtr certificate = testsupport::selfSignedFor(key);
        PKCS12Recipe recipe;
        recipe.key = key;
        recipe.certificate = certificate.get();
        return PKCS12Certificate(testsupport::makePKCS12(recipe), kPKCS12Passphrase);
    }
};

TEST_F(PKCS12EllipticCurve, P256GivesThePrivateInteger) {
    const PKCS12Certificate container = open(KeyKind::P256);
    const auto key = container.getPrivateKeyInfo();
    ASSERT_TRUE(key.has_value());
    EXPECT_EQ(key->getType(), fc::KeyType::ECC);
    EXPECT_EQ(key->getECCCurve(), fc::EllipticCurve::Prime256v1);
    const ByteArray priv =
        bigNumberParameter(testsupport::sharedKey(KeyKind::P256), OSSL_PKEY_PARAM_PRIV_KEY);
    EXPECT_EQ(key->getECCPrivateInteger(), priv);
    EXPECT_LE(priv.size(), 32u);
    EXPECT_THROW_MSG(container.getPrivateExponent(), fc::NotRSAKey,
                     "Cannot get the private exponent from the key because it is not an RSA key.");
}

TEST_F(PKCS12EllipticCurve, Ed25519GivesTheRawPrivateKey) {
    const auto key = open(KeyKind::Ed25519).getPrivateKeyInfo();
    ASSERT_TRUE(key.has_value());
    EXPECT_EQ(key->getECCCurve(), fc::EllipticCurve::Ed25519);
    ByteArray raw(32);
    std::size_t length = raw.size();
    ASSERT_EQ(
        EVP_PKEY_get_raw_private_key(testsupport::sharedKey(KeyKind::Ed25519), raw.data(), &length),
        1);
    EXPECT_EQ(key->getECCPrivateInteger(), raw);
}

TEST_F(PKCS12EllipticCurve, P384CertificateIsRefusedWithItsCurve) {
    EXPECT_THROW_MSG(open(KeyKind::P384), fc::UnsupportedEllipticCurve,
                     "Unsupported elliptic curve in X509 Certificate in PKCS12: ECC-based key is "
                     "not using supported ECC Curve. Curve: secp384r1");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(PKCS12WeakRSA, CertificateIsCheckedBeforeTheKey) {
    EVP_PKEY* key = testsupport::sharedKey(KeyKind::RSA512);
    const fc::X509UPtr certificate = testsupport::selfSignedFor(key);
    PKCS12Recipe recipe;
    recipe.key = key;
    recipe.certificate = certificate.get();
    EXPECT_THROW_MSG(PKCS12Certificate(testsupport::makePKCS12(recipe), kPKCS12Passphrase),
                     fc::PKCS12CertificateException,
                     "Error: Unable to parse X509 certificate(s) inside PKCS12 certificate.RSA key "
                     "size does not meet minimum cryptographic requirements");
}

TEST(PKCS12WeakRSA, KeyAloneIsCheckedToo) {
    PKCS12Recipe recipe;
    recipe.key = testsupport::sharedKey(KeyKind::RSA512);
    EXPECT_THROW_MSG(PKCS12Certificate(testsupport::makePKCS12(recipe), kPKCS12Passphrase),
                     fc::PKCS12CertificateException,
                     "RSA key size does not meet minimum cryptographic requirements");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(PKCS12BadInput, EmptyAndUnreadableInput) {
    EXPECT_THROW_MSG(PKCS12Certificate(ByteArray{}, kPKCS12Passphrase), fc::InvalidArgument,
                     "The provided PKCS12 certificate bytearray has no content.");
    std::istringstream nothingLeft("");
    EXPECT_THROW_MSG(PKCS12Certificate(nothingLeft, kPKCS12Passphrase), fc::InvalidArgument,
                     "The provided PKCS12 certificate bytearray has no content.");
    std::istringstream atEnd("");
    atEnd.get();
    EXPECT_THROW_MSG(PKCS12Certificate(atEnd, kPKCS12Passphrase), fc::InvalidArgument,
                     "The input PKCS12 certificate data stream is invalid.");
}

TEST(PKCS12BadInput, NotDERPKCS12) {
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    const std::string pem = testsupport::toPEM(pki.root.get());
    PKCS12Recipe recipe;
    recipe.certificate = pki.root.get();
    ByteArray truncated = testsupport::makePKCS12(recipe);
    truncated.resize(truncated.size() / 2);
    for (const ByteArray& der :
         {ByteArray(pem.begin(), pem.end()), testsupport::toDER(pki.root.get()), truncated}) {
        const std::string reason = opensslReasonForDER(der);
        EXPECT_FALSE(reason.empty());
        EXPECT_THROW_MSG(PKCS12Certificate(der, kPKCS12Passphrase), fc::PKCS12CertificateException,
                         "Error: Loading PKSC12 certificate failed. Reason=" + reason);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST(PKCS12ErrorQueue, EmptyAfterEveryLoad) {
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    PKCS12Recipe recipe;
    recipe.key = pki.leafKey.get();
    recipe.certificate = pki.leaf.get();
    const ByteArray der = testsupport::makePKCS12(recipe);
    const ByteArray garbage{0x30, 0x03, 0x02, 0x01};

    const std::vector<std::function<void()>> loads = {
        [&] { PKCS12Certificate(der, kPKCS12Passphrase); },
        [&] { PKCS12Certificate(der, kWrongPassphrase); },
        [&] { PKCS12Certificate(garbage, kPKCS12Passphrase); },
        [&] { PKCS12Certificate(ByteArray{}, kPKCS12Passphrase); },
        [&] {
            std::istringstream bad("x");
            bad.setstate(std::ios_base::failbit);
            PKCS12Certificate(bad, kPKCS12Passphrase);
        },
    };
    for (const auto& load : loads) {
        ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);  // left over from the caller
        try {
            load();
        } catch (const fc::CertificateException&) {
        }
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

class PKCS12Value : public ::testing::Test {
  protected:
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    PKCS12Certificate container{makeWith({pki.intermediate.get()}), kPKCS12Passphrase};

    ByteArray makeWith(const std::vector<X509*>& chain) const {
        PKCS12Recipe recipe;
        recipe.key = pki.leafKey.get();
        recipe.certificate = pki.leaf.get();
        recipe.caChain = chain;
        return testsupport::makePKCS12(recipe);
    }
};

TEST_F(PKCS12Value, CopiesAreEqualAndComparisonSeesTheChain) {
    const PKCS12Certificate copy(container);
    PKCS12Certificate assigned;
    assigned = container;
    EXPECT_EQ(copy, container);
    EXPECT_EQ(assigned, container);
    EXPECT_EQ(copy.getAsBytes(), container.getAsBytes());
    EXPECT_TRUE(container == container);

    const PKCS12Certificate otherChain(makeWith({pki.root.get()}), kPKCS12Passphrase);
    EXPECT_NE(otherChain, container);
}

TEST_F(PKCS12Value, PrintsCertificateThenChain) {
    std::ostringstream expected;
    expected << "Printing PKCS12 certificate.\nCertificate: \n"
             << container.getCertificate() << "\nCA Chain: \n"
             << container.getCAChain() << '\n';
    std::ostringstream printed;
    printed << container;
    EXPECT_EQ(printed.str(), expected.str());
}

TEST_F(PKCS12Value, DefaultConstructedIsEmpty) {
    const PKCS12Certificate empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(empty.getAsBytes().empty());
    EXPECT_TRUE(empty.getCertificate().empty());
    EXPECT_FALSE(empty.getPrivateKeyInfo().has_value());
}

TEST_F(PKCS12Value, MovedFromObjectIsUninitializedEverywhere) {
    PKCS12Certificate moved(std::move(container));
    EXPECT_FALSE(moved.empty());
    const PKCS12Certificate& source = container;
    const char* message = "Error: PKCS12Certificate is uninitialized.";
    std::ostringstream out;
    EXPECT_THROW_MSG(source.empty(), fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(source.getCertificate(), fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(source.getCAChain(), fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(source.getPrivateKeyInfo(), fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(source.getPrivateExponent(), fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(source.getAsBytes(), fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(source.print(out), fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(out << source, fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(source == moved, fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(moved != source, fc::PKCS12CertificateException, message);
    EXPECT_THROW_MSG(PKCS12Certificate{source}, fc::PKCS12CertificateException, message);

    // Assignment brings it back.
    container = moved;
    EXPECT_EQ(container, moved);
}

}  // namespace
