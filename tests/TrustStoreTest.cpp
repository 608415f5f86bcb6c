// Filling, filtering, copying and sharing trust stores.
#include "FacadeAccess.hpp"
#include "X509CertificateImpl.hpp"
#include "support/Expectations.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <functional>
#include <set>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::TrustStore;
using fc::TrustStoreException;
using fc::X509Certificate;
using testsupport::kDay;
using testsupport::makeQuickCertificate;

namespace {

X509Certificate certificateOf(const X509* x) { return X509Certificate(testsupport::toPEM(x)); }

std::set<ByteArray> derSetOf(X509_STORE* store) {
    std::set<ByteArray> ders;
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        const X509* x = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
        if (x != nullptr) ders.insert(testsupport::toDER(x));
    }
    return ders;
}

std::set<const X509*> x509PointersOf(X509_STORE* store) {
    std::set<const X509*> pointers;
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        pointers.insert(X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i)));
    }
    return pointers;
}

std::set<ByteArray> derSetOf(const TrustStore& store) {
    std::set<ByteArray> ders;
    for (const std::string& pem : store.getPEMStrings())
        ders.insert(X509Certificate(pem).getAsBytes());
    return ders;
}

class TrustStoreTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        root = makeQuickCertificate("Trust Root", true).release();
        otherRoot = makeQuickCertificate("Other Root", true).release();
        expired = makeQuickCertificate("Expired Root", true, {}, -30 * kDay, -kDay).release();
        notYetValid = makeQuickCertificate("Future Root", true, {}, kDay, 30 * kDay).release();
        clientOnly =
            makeQuickCertificate("client.example.test", false, {{NID_ext_key_usage, "clientAuth"}})
                .release();
    }
    static void TearDownTestSuite() {
        for (X509* x : {root, otherRoot, expired, notYetValid, clientOnly}) X509_free(x);
    }

    static X509* root;
    static X509* otherRoot;
    static X509* expired;
    static X509* notYetValid;
    static X509* clientOnly;
};

X509* TrustStoreTest::root = nullptr;
X509* TrustStoreTest::otherRoot = nullptr;
X509* TrustStoreTest::expired = nullptr;
X509* TrustStoreTest::notYetValid = nullptr;
X509* TrustStoreTest::clientOnly = nullptr;

TEST_F(TrustStoreTest, NewStoreIsEmpty) {
    const TrustStore store;
    EXPECT_EQ(store.size(), 0u);
    EXPECT_TRUE(store.empty());
    EXPECT_TRUE(store.getPEMStrings().empty());
    EXPECT_NE(fc::getOpenSSLStore(store), nullptr);
}

TEST_F(TrustStoreTest, SameCertificateTwiceIsKeptOnce) {
    TrustStore store(nullptr);
    store.addCertificate(certificateOf(root));
    store.addCertificate(certificateOf(root));  // a separate object with the same content
    fc::TrustStoreImpl(nullptr).addCertificateDER(testsupport::toDER(root));
    EXPECT_EQ(store.size(), 1u);
    ASSERT_EQ(store.getPEMStrings().size(), 1u);
    EXPECT_EQ(store.getPEMStrings()[0], testsupport::toPEM(root));
}

TEST_F(TrustStoreTest, StoreSharesTheCertificatesParsedX509) {
    const X509Certificate certificate = certificateOf(root);
    TrustStore store(nullptr);
    store.addCertificate(certificate);
    const X509* parsed = fc::detail::FacadeAccess::locked(
        certificate, [](const fc::X509CertificateImpl& impl) { return impl.get(); });
    const auto live = fc::getOpenSSLStore(store);
    const X509_OBJECT* object = sk_X509_OBJECT_value(X509_STORE_get0_objects(live.get()), 0);
    EXPECT_EQ(X509_OBJECT_get0_X509(object), parsed);
}

TEST_F(TrustStoreTest, EmptyOrMovedFromCertificateIsRefused) {
    TrustStore store(nullptr);
    EXPECT_THROW_MSG(store.addCertificate(X509Certificate()), TrustStoreException,
                     "Input certificate is empty.");
    X509Certificate movedFrom = certificateOf(root);
    const X509Certificate taken(std::move(movedFrom));
    EXPECT_THROW_MSG(store.addCertificate(movedFrom), fc::X509CertificateException,
                     "Error: X509Certificate is uninitialized.");
    EXPECT_TRUE(store.empty());
}

TEST_F(TrustStoreTest, UnparsableDERIsReportedWithItsBytes) {
    fc::TrustStoreImpl store(nullptr);
    EXPECT_THROW_MSG(store.addCertificateDER({0x01, 0x02}), TrustStoreException,
                     "Failed to parse DER data to X509 certificate. Cert size = 2\n"
                     "Cert Bytes =  0x01 0x02 \n");
    ByteArray truncated = testsupport::toDER(root);
    truncated.resize(40);
    EXPECT_THROW(store.addCertificateDER(truncated), TrustStoreException);
    EXPECT_TRUE(store.empty());
}

TEST_F(TrustStoreTest, FilterRunsOnlyWithSystemImportAndCoversEarlierAdditions) {
    TrustStore store(nullptr);
    for (const X509* x : {root, expired, notYetValid, clientOnly}) {
        store.addCertificate(certificateOf(x));
    }
    EXPECT_EQ(store.size(), 4u);

    store.addSystemCertificates(TrustStore::Usage::SSL, true);
    EXPECT_EQ(derSetOf(store),
              (std::set<ByteArray>{testsupport::toDER(root), testsupport::toDER(notYetValid)}));
}

TEST_F(TrustStoreTest, SystemImportAddsTheAddersCertificatesThenFilters) {
    TrustStore store(std::make_unique<testsupport::ListAdder>(std::vector<ByteArray>{
        testsupport::toDER(otherRoot), ByteArray{0x30, 0x00}, testsupport::toDER(expired)}));
    store.addCertificate(certificateOf(root));
    store.addSystemCertificates(TrustStore::Usage::Signing, false);
    EXPECT_EQ(derSetOf(store),
              (std::set<ByteArray>{testsupport::toDER(root), testsupport::toDER(otherRoot)}));

    EXPECT_THROW(store.addSystemCertificates(TrustStore::Usage::Signing, true),
                 TrustStoreException);
}

class ThrowingAdder : public fc::ISystemCertificateAdder {
  public:
    explicit ThrowingAdder(ByteArray first) : first(std::move(first)) {}
    ISystemCertificateAdder* clone() const override { return new ThrowingAdder(*this); }
    void addSystemCertificates(fc::TrustStoreImpl& store, TrustStore::Usage, bool) override {
        store.addCertificateDER(first);
        throw std::logic_error("adder gave up");
    }

  private:
    ByteArray first;
};

TEST_F(TrustStoreTest, AdderErrorsPassThroughAndSkipTheFilter) {
    TrustStore store(std::make_unique<ThrowingAdder>(testsupport::toDER(expired)));
    EXPECT_THROW_MSG(store.addSystemCertificates(TrustStore::Usage::SSL, false), std::logic_error,
                     "adder gave up");
    EXPECT_EQ(store.size(), 1u);  // the expired certificate was added and not filtered
}

TEST_F(TrustStoreTest, CopiesAreIndependentAndShareTheirCertificates) {
    auto clones = std::make_shared<std::atomic<int>>(0);
    TrustStore original(std::make_unique<testsupport::ListAdder>(
        std::vector<ByteArray>{testsupport::toDER(otherRoot)}, clones));
    original.addCertificate(certificateOf(root));

    TrustStore copy(original);
    EXPECT_EQ(*clones, 1);
    copy.addCertificate(certificateOf(notYetValid));
    original.addCertificate(certificateOf(clientOnly));
    EXPECT_EQ(original.size(), 2u);
    EXPECT_EQ(copy.size(), 2u);

    // The copy's own adder was cloned: its import adds the adder's certificate.
    copy.addSystemCertificates(TrustStore::Usage::SSL, true);
    EXPECT_EQ(derSetOf(copy),
              (std::set<ByteArray>{testsupport::toDER(root), testsupport::toDER(otherRoot),
                                   testsupport::toDER(notYetValid)}));

    TrustStore assigned(nullptr);
    assigned = original;
    EXPECT_EQ(derSetOf(assigned), derSetOf(original));
    EXPECT_EQ(*clones, 2);

    // Same X509 objects, not duplicates.
    const auto copied = fc::copyOpenSSLStore(original);
    EXPECT_EQ(x509PointersOf(copied.get()), x509PointersOf(fc::getOpenSSLStore(original).get()));
}

TEST_F(TrustStoreTest, EmptyAdderAddsNothingAndCopies) {
    TrustStore store(nullptr);
    store.addCertificate(certificateOf(root));
    TrustStore copy(store);
    copy.addSystemCertificates(TrustStore::Usage::SSL, true);
    EXPECT_EQ(copy.size(), 1u);
}

TEST_F(TrustStoreTest, SSLContextSeesLaterAdditionsButACopyDoesNot) {
    auto store = std::make_unique<TrustStore>(nullptr);
    store->addCertificate(certificateOf(root));
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_method()),
                                                                    SSL_CTX_free);
    ASSERT_TRUE(context);
    fc::attachTrustStoreToSSLCTX(*store, context.get());
    fc::attachTrustStoreToSSLCTX(*store, nullptr);
    const auto copy = fc::copyOpenSSLStore(*store);
    X509_STORE* rawCopy = fc::copyUnderlyingStore(*store);

    store->addCertificate(certificateOf(otherRoot));
    X509_STORE* contextStore = SSL_CTX_get_cert_store(context.get());
    EXPECT_EQ(contextStore, fc::getUnderlyingStore(*store).get());
    EXPECT_EQ(derSetOf(contextStore).size(), 2u);
    EXPECT_EQ(derSetOf(copy.get()), std::set<ByteArray>{testsupport::toDER(root)});
    EXPECT_EQ(derSetOf(rawCopy), std::set<ByteArray>{testsupport::toDER(root)});
    X509_STORE_free(rawCopy);

    store.reset();  // the context keeps the store alive
    EXPECT_EQ(derSetOf(SSL_CTX_get_cert_store(context.get())).size(), 2u);
}

TEST_F(TrustStoreTest, MovedFromStoreReadsAsEmptyAndComesBackOnAdd) {
    TrustStore source(nullptr);
    source.addCertificate(certificateOf(root));
    TrustStore target(std::move(source));
    EXPECT_EQ(target.size(), 1u);

    EXPECT_EQ(source.size(), 0u);
    EXPECT_TRUE(source.empty());
    EXPECT_TRUE(source.getPEMStrings().empty());
    EXPECT_EQ(fc::getOpenSSLStore(source), nullptr);
    EXPECT_EQ(fc::copyOpenSSLStore(source), nullptr);
    EXPECT_EQ(fc::copyUnderlyingStore(source), nullptr);
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_method()),
                                                                    SSL_CTX_free);
    X509_STORE* own = SSL_CTX_get_cert_store(context.get());
    fc::attachTrustStoreToSSLCTX(source, context.get());
    EXPECT_EQ(SSL_CTX_get_cert_store(context.get()), own);

    const TrustStore copyOfMovedFrom(source);
    EXPECT_TRUE(copyOfMovedFrom.empty());
    EXPECT_NE(fc::getOpenSSLStore(copyOfMovedFrom), nullptr);

    source.addCertificate(certificateOf(otherRoot));
    EXPECT_EQ(source.size(), 1u);
    EXPECT_EQ(target.size(), 1u);

    target = std::move(source);  // an exchange
    EXPECT_EQ(derSetOf(target), std::set<ByteArray>{testsupport::toDER(otherRoot)});
    EXPECT_EQ(derSetOf(source), std::set<ByteArray>{testsupport::toDER(root)});
}

TEST_F(TrustStoreTest, CRLsAreSharedByCopiesRefusedAsCertificatesAndFilteredOut) {
    const auto& pki = testsupport::ecPKI();
    const fc::X509CRLUPtr crl = testsupport::makeCRL(pki.root.get(), pki.rootKey.get());
    TrustStore store(nullptr);
    store.addCertificate(certificateOf(root));
    ASSERT_EQ(X509_STORE_add_crl(fc::getOpenSSLStore(store).get(), crl.get()), 1);
    EXPECT_EQ(store.size(), 2u);
    EXPECT_THROW_MSG(store.getPEMStrings(), TrustStoreException,
                     "Unsupported object type found in TrustStore");

    const auto copy = fc::copyOpenSSLStore(store);
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(copy.get());
    int crls = 0;
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        const X509_OBJECT* object = sk_X509_OBJECT_value(objects, i);
        if (X509_OBJECT_get_type(object) == X509_LU_CRL) {
            ++crls;
            EXPECT_EQ(X509_OBJECT_get0_X509_CRL(object), crl.get());
        }
    }
    EXPECT_EQ(crls, 1);
    EXPECT_EQ(TrustStore(store).size(), 2u);

    store.addSystemCertificates(TrustStore::Usage::SSL, true);
    EXPECT_EQ(store.size(), 1u);
    EXPECT_EQ(store.getPEMStrings().size(), 1u);
}

TEST_F(TrustStoreTest, IndexWithoutCertificateThrows) {
    fc::TrustStoreImpl store(nullptr);
    store.addCertificateX509(root);
    EXPECT_EQ(store.getCertificate(0), root);
    for (const int index : {-1, 1, 1000}) {
        EXPECT_THROW_MSG(store.getCertificate(index), TrustStoreException,
                         "Unsupported object type found in TrustStore");
    }
}

// Errors the caller had queued survive every operation, failing ones included.
TEST_F(TrustStoreTest, CallersQueuedErrorStaysFirst) {
    const auto& pki = testsupport::ecPKI();
    const fc::X509CRLUPtr crl = testsupport::makeCRL(pki.root.get(), pki.rootKey.get());
    TrustStore withCRL(nullptr);
    X509_STORE_add_crl(fc::getOpenSSLStore(withCRL).get(), crl.get());
    TrustStore logging(std::make_unique<testsupport::ListAdder>(
        std::vector<ByteArray>{ByteArray{0x05}, testsupport::toDER(root)}));

    const X509Certificate rootCertificate = certificateOf(root);  // loading clears the queue
    const std::vector<std::pair<const char*, std::function<void()>>> operations = {
        {"bad DER",
         [] {
             fc::TrustStoreImpl(nullptr).addCertificateDER({0x01, 0x02});
         }},
        {"add twice",
         [&] {
             TrustStore store(nullptr);
             store.addCertificate(rootCertificate);
             store.addCertificate(rootCertificate);
         }},
        {"PEM with CRL", [&] { withCRL.getPEMStrings(); }},
        {"copy", [&] { TrustStore copy(withCRL); }},
        {"import", [&] { logging.addSystemCertificates(TrustStore::Usage::SSL, true); }},
        {"isValidFor", [] { fc::isValidFor(clientOnly, TrustStore::Usage::SSL); }},
    };
    for (const auto& [name, operation] : operations) {
        SCOPED_TRACE(name);
        ERR_clear_error();
        ERR_raise(ERR_LIB_USER, 77);
        const unsigned long seeded = ERR_peek_error();
        try {
            operation();
        } catch (const TrustStoreException&) {
        }
        EXPECT_EQ(ERR_peek_error(), seeded);
        EXPECT_EQ(ERR_peek_last_error(), seeded);
    }
    ERR_clear_error();
}

struct ValidityCase {
    const char* name;
    bool ca;
    std::vector<std::pair<int, std::string>> extensions;
    bool ssl;
    bool signing;
};

class IsValidFor : public ::testing::TestWithParam<ValidityCase> {};

TEST_P(IsValidFor, JudgesByKeyUsageAndExtendedKeyUsage) {
    const ValidityCase& c = GetParam();
    const fc::X509UPtr x = makeQuickCertificate(c.name, c.ca, c.extensions);
    EXPECT_EQ(fc::isValidFor(x.get(), TrustStore::Usage::SSL), c.ssl);
    EXPECT_EQ(fc::isValidFor(x.get(), TrustStore::Usage::Signing), c.signing);
    EXPECT_FALSE(fc::isValidFor(x.get(), static_cast<TrustStore::Usage>(2)));
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, IsValidFor,
    ::testing::Values(
        ValidityCase{"NoExtensions", false, {}, true, true},
        ValidityCase{"CA", true, {}, true, true},
        ValidityCase{"ServerAuthOnly", false, {{NID_ext_key_usage, "serverAuth"}}, true, false},
        ValidityCase{"ClientAuthOnly", false, {{NID_ext_key_usage, "clientAuth"}}, false, false},
        ValidityCase{"CodeSigning", false, {{NID_ext_key_usage, "codeSigning"}}, false, true},
        ValidityCase{
            "EmailProtection", false, {{NID_ext_key_usage, "emailProtection"}}, false, true},
        ValidityCase{
            "TimeStamping", false, {{NID_ext_key_usage, "critical,timeStamping"}}, false, true},
        ValidityCase{"AnyExtendedKeyUsage",
                     false,
                     {{NID_ext_key_usage, "anyExtendedKeyUsage"}},
                     false,
                     true},
        ValidityCase{"ServerAuthAndCodeSigning",
                     false,
                     {{NID_ext_key_usage, "serverAuth,codeSigning"}},
                     true,
                     true},
        ValidityCase{
            "KeyEnciphermentOnly", false, {{NID_key_usage, "keyEncipherment"}}, true, false},
        ValidityCase{"CRLSignOnly", false, {{NID_key_usage, "cRLSign"}}, false, true},
        ValidityCase{"DigitalSignatureClientAuth",
                     false,
                     {{NID_key_usage, "digitalSignature"}, {NID_ext_key_usage, "clientAuth"}},
                     false,
                     false}),
    [](const ::testing::TestParamInfo<ValidityCase>& info) { return info.param.name; });

}  // namespace
