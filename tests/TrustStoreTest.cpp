// Filling, filtering, copying and sharing trust stores.
#include "support/Expectations.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <set>
#include <tuple>

namespace fc = foundation::certificates;
using fc::TrustStore;
using fc::TrustStoreException;
using fc::X509Certificate;
using testsupport::kDay;
using Ders = std::set<fc::ByteArray>;

namespace {

struct Certificates {
    X509Certificate root, other, expired, future;
};

const Certificates& certs() {
    const auto make = [](const char* name, long from = -3600, long to = 365 * kDay) {
        return X509Certificate(testsupport::makeQuickCertificate(name, true, {}, from, to).get());
    };
    static const Certificates certificates{make("Trust Root"), make("Other Root"),
                                           make("Expired Root", -30 * kDay, -kDay),
                                           make("Future Root", kDay, 30 * kDay)};
    return certificates;
}

int objectsIn(X509_STORE* store) { return sk_X509_OBJECT_num(X509_STORE_get0_objects(store)); }

Ders contents(const TrustStore& store) {
    Ders ders;
    for (const std::string& pem : store.getPEMStrings())
        ders.insert(X509Certificate(pem).getAsBytes());
    return ders;
}

Ders dersOf(std::initializer_list<X509Certificate> certificates) {
    Ders ders;
    for (const X509Certificate& certificate : certificates) ders.insert(certificate.getAsBytes());
    return ders;
}

// Runs `call` with an error of the caller's queued, which must be all that is queued afterwards.
template <typename Call>
void withQueuedError(Call&& call) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 77);
    const unsigned long queued = ERR_peek_error();
    call();
    EXPECT_EQ(ERR_peek_error(), queued);
    EXPECT_EQ(ERR_peek_last_error(), queued);
    ERR_clear_error();
}

TEST(TrustStore, KeepsOneCopyOfACertificateAndRefusesEmptyInput) {
    TrustStore store(nullptr);
    store.addCertificate(certs().root);
    const X509Certificate equal(certs().root.getAsBytes());  // loading clears the queue
    withQueuedError([&] { store.addCertificate(equal); });
    EXPECT_EQ(contents(store), dersOf({certs().root}));

    EXPECT_THROW_MSG(store.addCertificate(X509Certificate()), TrustStoreException,
                     "Input certificate is empty.");
    X509Certificate movedFrom(certs().other);
    const X509Certificate taken(std::move(movedFrom));
    EXPECT_THROW_MSG(store.addCertificate(movedFrom), fc::X509CertificateException,
                     "Error: X509Certificate is uninitialized.");
    withQueuedError([] {
        EXPECT_THROW_MSG(fc::TrustStoreImpl(nullptr).addCertificateDER({0x01, 0x02}),
                         TrustStoreException, testsupport::kBadDERMessage);
    });
    EXPECT_EQ(store.size(), 1u);
}

// The filter runs on import only, over everything the store holds, CRLs included.
TEST(TrustStore, ImportFiltersEarlierAdditionsAndCRLs) {
    const auto& pki = testsupport::ecPKI();
    const fc::X509CRLUPtr crl = testsupport::makeCRL(pki.root.get(), pki.rootKey.get());
    TrustStore store(nullptr);
    for (const X509Certificate& certificate : {certs().root, certs().expired, certs().future})
        store.addCertificate(certificate);
    ASSERT_EQ(X509_STORE_add_crl(fc::getOpenSSLStore(store).get(), crl.get()), 1);
    withQueuedError([&] {
        EXPECT_EQ(TrustStore(store).size(), 4u);
        EXPECT_THROW_MSG(store.getPEMStrings(), TrustStoreException,
                         "Unsupported object type found in TrustStore");
        store.addSystemCertificates(TrustStore::Usage::SSL, true);
    });
    EXPECT_EQ(store.size(), 2u);
    EXPECT_EQ(contents(store), dersOf({certs().root, certs().future}));
}

TEST(TrustStore, CopiesAreIndependentWhileAnSSLContextSharesTheStore) {
    TrustStore original(nullptr);
    original.addCertificate(certs().root);
    // Freed first: the store must outlive its share.
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_method()),
                                                                    SSL_CTX_free);
    fc::attachTrustStoreToSSLCTX(original, context.get());
    const auto snapshot = fc::copyOpenSSLStore(original);
    TrustStore copy(original);
    TrustStore assigned(nullptr);
    assigned = original;

    original.addCertificate(certs().other);
    copy.addCertificate(certs().future);
    EXPECT_EQ(contents(original), dersOf({certs().root, certs().other}));
    EXPECT_EQ(objectsIn(SSL_CTX_get_cert_store(context.get())), 2);
    EXPECT_EQ(contents(copy), dersOf({certs().root, certs().future}));
    EXPECT_EQ(contents(assigned), dersOf({certs().root}));
    EXPECT_EQ(objectsIn(snapshot.get()), 1);
}

TEST(TrustStore, MovedFromStoreReadsAsEmptyAndComesBackOnAdd) {
    TrustStore source(nullptr);
    source.addCertificate(certs().root);
    const TrustStore target(std::move(source));
    EXPECT_EQ(target.size(), 1u);

    EXPECT_EQ(source.size(), 0u);  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(source.empty());
    EXPECT_TRUE(source.getPEMStrings().empty());
    EXPECT_EQ(fc::copyOpenSSLStore(source), nullptr);
    EXPECT_TRUE(TrustStore(source).empty());
    source.addCertificate(certs().other);
    EXPECT_EQ(contents(source), dersOf({certs().other}));
}

TEST(TrustStore, IsValidForJudgesKeyUsageAndExtendedKeyUsage) {
    // CA or not, extensions, valid for SSL, valid for signing.
    using Extensions = std::vector<std::pair<int, std::string>>;
    const std::tuple<bool, Extensions, bool, bool> cases[] = {
        {false, {}, true, true},
        {true, {}, true, true},
        {false, {{NID_ext_key_usage, "serverAuth"}}, true, false},
        {false, {{NID_ext_key_usage, "clientAuth"}}, false, false},
        {false, {{NID_ext_key_usage, "codeSigning"}}, false, true},
        {false, {{NID_ext_key_usage, "emailProtection"}}, false, true},
        {false, {{NID_ext_key_usage, "critical,timeStamping"}}, false, true},
        {false, {{NID_ext_key_usage, "anyExtendedKeyUsage"}}, false, true},
        {false, {{NID_ext_key_usage, "serverAuth,codeSigning"}}, true, true},
        {false, {{NID_key_usage, "keyEncipherment"}}, true, false},
        {false, {{NID_key_usage, "cRLSign"}}, false, true},
        {false, {{NID_key_usage, "cRLSign"}, {NID_ext_key_usage, "clientAuth"}}, false, false},
    };
    for (const auto& [ca, extensions, ssl, signing] : cases) {
        SCOPED_TRACE(ca ? "CA" : extensions.empty() ? "leaf" : extensions.back().second.c_str());
        const fc::X509UPtr x = testsupport::makeQuickCertificate("Usage", ca, extensions);
        EXPECT_EQ(fc::isValidFor(x.get(), TrustStore::Usage::SSL), ssl);
        EXPECT_EQ(fc::isValidFor(x.get(), TrustStore::Usage::Signing), signing);
        EXPECT_FALSE(fc::isValidFor(x.get(), static_cast<TrustStore::Usage>(2)));
    }
}

}  // namespace
