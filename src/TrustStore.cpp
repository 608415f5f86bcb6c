#include <foundation/certificates/TrustStore.hpp>

#include "FacadeAccess.hpp"
#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <openssl/x509v3.h>

#include <algorithm>
#include <iterator>

namespace foundation::certificates {

using detail::FacadeAccess;

namespace {

// A trust store without implementation (moved from) reads as an empty store, so these run the
// operation under the store's lock with a possibly null implementation instead of refusing.
template <typename Operation>
decltype(auto) withImpl(const TrustStore& store, Operation&& operation) {
    const std::lock_guard<std::mutex> lock(FacadeAccess::mutex(store));
    return std::forward<Operation>(operation)(FacadeAccess::implPointer(store).get());
}

// Adding operations bring a moved-from store back with a fresh implementation.
template <typename Operation>
decltype(auto) withNewOrExistingImpl(TrustStore& store, Operation&& operation) {
    const std::lock_guard<std::mutex> lock(FacadeAccess::mutex(store));
    auto& impl = FacadeAccess::implPointer(store);
    if (!impl) impl = std::make_unique<TrustStoreImpl>();
    return std::forward<Operation>(operation)(*impl);
}

}  // namespace

TrustStore::TrustStore() : impl(std::make_unique<TrustStoreImpl>()) {}

TrustStore::TrustStore(std::unique_ptr<ISystemCertificateAdder> adder)
    : impl(std::make_unique<TrustStoreImpl>(std::move(adder))) {}

TrustStore::TrustStore(const TrustStore& other) {
    const std::lock_guard<std::mutex> lock(other.mutex);
    impl = other.impl ? std::make_unique<TrustStoreImpl>(*other.impl, lock)
                      : std::make_unique<TrustStoreImpl>();
}

TrustStore& TrustStore::operator=(const TrustStore& other) {
    TrustStore copy(other);
    swap(copy);
    return *this;
}

TrustStore::TrustStore(TrustStore&& other) noexcept : impl(std::move(other.impl)) {}

TrustStore& TrustStore::operator=(TrustStore&& other) noexcept {
    swap(other);
    return *this;
}

void TrustStore::swap(TrustStore& other) noexcept { impl.swap(other.impl); }

TrustStore::~TrustStore() = default;

void TrustStore::addCertificate(const X509Certificate& certificate) {
    if (certificate.empty()) throw TrustStoreException("Input certificate is empty.");
    withNewOrExistingImpl(*this, [&certificate](TrustStoreImpl& store) {
        // Store before certificate: the one lock order between the two families. The store
        // takes its own reference to the certificate's parsed X509, which is never modified.
        FacadeAccess::locked(certificate, [&store](const X509CertificateImpl& parsed) {
            parsed.throwIfEmpty();
            store.addCertificateX509(parsed.get());
        });
    });
}

void TrustStore::addSystemCertificates(Usage usage, bool throwOnFailure) {
    withNewOrExistingImpl(*this, [usage, throwOnFailure](TrustStoreImpl& store) {
        store.addSystemCertificates(usage, throwOnFailure);
    });
}

TrustImportReport TrustStore::addSystemCertificatesWithReport(Usage usage) {
    return withNewOrExistingImpl(*this, [usage](TrustStoreImpl& store) {
        return store.addSystemCertificatesWithReport(usage);
    });
}

std::size_t TrustStore::size() const {
    return withImpl(*this, [](const TrustStoreImpl* i) { return i ? i->size() : 0; });
}

bool TrustStore::empty() const {
    return withImpl(*this, [](const TrustStoreImpl* i) { return i ? i->empty() : true; });
}

std::vector<std::string> TrustStore::getPEMStrings() const {
    return withImpl(*this, [](const TrustStoreImpl* i) {
        return i ? i->getPEMStrings() : std::vector<std::string>();
    });
}

std::shared_ptr<X509_STORE> getOpenSSLStore(const TrustStore& store) {
    return withImpl(store, [](const TrustStoreImpl* i) {
        return i ? i->getOpenSSLStore() : std::shared_ptr<X509_STORE>();
    });
}

std::shared_ptr<X509_STORE> getUnderlyingStore(const TrustStore& store) {
    return getOpenSSLStore(store);
}

std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> copyOpenSSLStore(const TrustStore& store) {
    return std::unique_ptr<X509_STORE, void (*)(X509_STORE*)>(copyUnderlyingStore(store),
                                                              X509_STORE_free);
}

X509_STORE* copyUnderlyingStore(const TrustStore& store) {
    return withImpl(store,
                    [](const TrustStoreImpl* i) { return i ? i->copyOpenSSLStore() : nullptr; });
}

void attachTrustStoreToSSLCTX(const TrustStore& store, SSL_CTX* context) {
    if (context == nullptr) return;
    withImpl(store, [context](const TrustStoreImpl* i) {
        if (i == nullptr) return;
        X509_STORE* shared = i->getOpenSSLStore().get();
        // The context frees its store when it goes, so it gets a reference of its own.
        X509_STORE_up_ref(shared);
        SSL_CTX_set_cert_store(context, shared);
    });
}

namespace {

bool keyUsageAllowsSigning(X509* certificate) {
    const detail::OpenSSLPtr<ASN1_STRING> keyUsage = detail::wrap(static_cast<ASN1_BIT_STRING*>(
        X509_get_ext_d2i(certificate, NID_key_usage, nullptr, nullptr)));
    if (!keyUsage) return true;
    constexpr int digitalSignature = 0;
    constexpr int keyCertSign = 5;
    constexpr int cRLSign = 6;
    return ASN1_BIT_STRING_get_bit(keyUsage.get(), digitalSignature) != 0 ||
           ASN1_BIT_STRING_get_bit(keyUsage.get(), keyCertSign) != 0 ||
           ASN1_BIT_STRING_get_bit(keyUsage.get(), cRLSign) != 0;
}

bool extendedKeyUsageAllowsSigning(X509* certificate) {
    const detail::OpenSSLPtr<EXTENDED_KEY_USAGE> purposes =
        detail::wrap(static_cast<EXTENDED_KEY_USAGE*>(
            X509_get_ext_d2i(certificate, NID_ext_key_usage, nullptr, nullptr)));
    if (!purposes) return true;
    constexpr int signingPurposes[] = {NID_code_sign, NID_email_protect, NID_time_stamp,
                                       NID_anyExtendedKeyUsage};
    for (int index = 0; index < sk_ASN1_OBJECT_num(purposes.get()); ++index) {
        const int nid = OBJ_obj2nid(sk_ASN1_OBJECT_value(purposes.get(), index));
        if (std::find(std::begin(signingPurposes), std::end(signingPurposes), nid) !=
            std::end(signingPurposes)) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool isValidFor(X509* certificate, TrustStore::Usage usage) {
    if (certificate == nullptr) return false;
    const detail::ScopedErrorQueueMark errorQueue;
    switch (usage) {
        case TrustStore::Usage::SSL:
            return X509_check_purpose(certificate, X509_PURPOSE_SSL_SERVER,
                                      X509_check_ca(certificate)) >= 1;
        case TrustStore::Usage::Signing:
            return keyUsageAllowsSigning(certificate) && extendedKeyUsageAllowsSigning(certificate);
    }
    return false;
}

}  // namespace foundation::certificates
