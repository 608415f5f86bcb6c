#include <foundation/certificates/TrustStore.hpp>

#include "FacadeAccess.hpp"
#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"
#include "TrustStoreAccess.hpp"
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
// operation on a possibly null implementation instead of refusing.
template <typename Operation>
auto withImpl(const TrustStore& store, Operation&& operation) {
    const auto impl = FacadeAccess::currentOrNull(store);
    return std::forward<Operation>(operation)(impl.get());
}

// Adding operations bring a moved-from store back with a fresh implementation.
template <typename Operation>
auto withNewOrExistingImpl(TrustStore& store, Operation&& operation) {
    const auto impl =
        FacadeAccess::change(store, [](const std::shared_ptr<TrustStoreImpl>& current) {
            return current ? current : std::make_shared<TrustStoreImpl>();
        });
    return std::forward<Operation>(operation)(*impl);
}

// A new implementation with the source's certificates; the source is read under its own locks.
std::shared_ptr<TrustStoreImpl> copiedImpl(const TrustStore& source) {
    const auto impl = FacadeAccess::currentOrNull(source);
    return impl ? detail::TrustStoreAccess::copy(*impl) : std::make_shared<TrustStoreImpl>();
}

}  // namespace

TrustStore::TrustStore() : impl(std::make_shared<TrustStoreImpl>()) {}

TrustStore::TrustStore(std::unique_ptr<ISystemCertificateAdder> adder)
    : impl(std::make_shared<TrustStoreImpl>(std::move(adder))) {}

TrustStore::TrustStore(const TrustStore& other) : impl(copiedImpl(other)) {}

TrustStore& TrustStore::operator=(const TrustStore& other) {
    if (this != &other) FacadeAccess::install(*this, copiedImpl(other));
    return *this;
}

TrustStore::TrustStore(TrustStore&& other) noexcept : impl(FacadeAccess::release(other)) {}

TrustStore& TrustStore::operator=(TrustStore&& other) noexcept {
    FacadeAccess::swap(*this, other);
    return *this;
}

void TrustStore::swap(TrustStore& other) noexcept { FacadeAccess::swap(*this, other); }

TrustStore::~TrustStore() = default;

void TrustStore::addCertificate(const X509Certificate& certificate) {
    if (certificate.empty()) throw TrustStoreException("Input certificate is empty.");
    // The certificate is read before the store is touched: one facade lock at a time. The store
    // takes its own reference to the parsed X509, which is never modified.
    const X509SPtr parsed = FacadeAccess::read(certificate, [](const X509CertificateImpl& i) {
        i.throwIfEmpty();
        return i.shared();
    });
    withNewOrExistingImpl(
        *this, [&parsed](TrustStoreImpl& store) { store.addCertificateX509(parsed.get()); });
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
