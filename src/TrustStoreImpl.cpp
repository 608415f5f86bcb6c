#include <foundation/certificates/TrustStoreImpl.hpp>

#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"
#include "StoreSnapshot.hpp"
#include "TrustImportRecorder.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/SystemCertificateAdder.hpp>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <climits>
#include <exception>
#include <sstream>

namespace foundation::certificates {

// Keeps the adder's vtable and type information in the library.
ISystemCertificateAdder::~ISystemCertificateAdder() = default;

namespace {

// The certificate of one object of the list; call with the store's list lock held.
X509* certificateAt(const STACK_OF(X509_OBJECT) * objects, int index) {
    // An index out of range finds no object; there is nothing to dereference.
    if (index < 0 || index >= sk_X509_OBJECT_num(objects)) {
        throw TrustStoreException("Unsupported object type found in TrustStore");
    }
    const X509_OBJECT* object = sk_X509_OBJECT_value(objects, index);
    if (X509_OBJECT_get_type(object) != X509_LU_X509) {
        throw TrustStoreException("Unsupported object type found in TrustStore");
    }
    X509* certificate = X509_OBJECT_get0_X509(object);
    if (certificate == nullptr)
        throw TrustStoreException("Null X509 certificate found in TrustStore");
    return certificate;
}

std::shared_ptr<X509_STORE> newStore() {
    std::shared_ptr<X509_STORE> store(X509_STORE_new(), X509_STORE_free);
    if (!store) throw TrustStoreException("Failed to create X509_STORE");
    return store;
}

}  // namespace

TrustStoreImpl::TrustStoreImpl()
    : TrustStoreImpl(std::make_unique<osx::SystemCertificateAdder>()) {}

TrustStoreImpl::TrustStoreImpl(std::unique_ptr<ISystemCertificateAdder> adder)
    : systemCertificateAdder(std::move(adder)) {
    const detail::ScopedErrorQueueMark errorQueue;
    store = newStore();
}

TrustStoreImpl::TrustStoreImpl(const TrustStoreImpl& other, const std::lock_guard<std::mutex>&)
    : TrustStoreImpl(other, CopyTag{}) {}

TrustStoreImpl::TrustStoreImpl(const TrustStoreImpl& other, CopyTag) {
    {
        const std::lock_guard<std::mutex> lock(other.adderMutex);
        if (other.systemCertificateAdder) {
            systemCertificateAdder.reset(other.systemCertificateAdder->clone());
        }
    }
    const detail::ScopedErrorQueueMark errorQueue;
    store.reset(other.copyOpenSSLStore(), X509_STORE_free);
    if (!store) throw TrustStoreException("Failed to create X509_STORE");
}

TrustStoreImpl::TrustStoreImpl(TrustStoreImpl&& other) noexcept
    : store(std::move(other.store)),
      systemCertificateAdder(std::move(other.systemCertificateAdder)) {}

TrustStoreImpl::~TrustStoreImpl() = default;

void TrustStoreImpl::addCertificateDER(const ByteArray& bytes) {
    const detail::ScopedErrorQueueMark errorQueue;
    if (detail::TrustImportRecorder* recorder = detail::TrustImportRecorder::activeFor(*this)) {
        recorder->offer(*this, bytes);
        return;
    }
    const unsigned char* cursor = bytes.data();
    const X509UPtr certificate = makeX509UPtr(
        bytes.size() <= LONG_MAX ? d2i_X509(nullptr, &cursor, static_cast<long>(bytes.size()))
                                 : nullptr);
    if (!certificate) {
        std::ostringstream message;
        message << "Failed to parse DER data to X509 certificate. Cert size = " << bytes.size();
        prettyPrintBytes(bytes, "\nCert Bytes = ", message);
        throw TrustStoreException(message.str());
    }
    // Fill OpenSSL's extension cache now: the certificate may later be read by several threads
    // at once (copies of this store share it).
    X509_check_purpose(certificate.get(), -1, 0);
    addCertificateX509(certificate.get());
}

void TrustStoreImpl::addCertificateX509(X509* certificate) {
    const detail::ScopedErrorQueueMark errorQueue;
    const std::lock_guard<std::mutex> lock(contentMutex);
    addUnlocked(certificate);
}

void TrustStoreImpl::addUnlocked(X509* certificate) {
    if (X509_STORE_add_cert(store.get(), certificate) == 1) return;
    const unsigned long error = ERR_peek_last_error();
    const bool alreadyPresent = !ERR_SYSTEM_ERROR(error) && ERR_GET_LIB(error) == ERR_LIB_X509 &&
                                ERR_GET_REASON(error) == X509_R_CERT_ALREADY_IN_HASH_TABLE;
    if (!alreadyPresent) throw TrustStoreException("Failed to add certificate to store");
}

void TrustStoreImpl::addSystemCertificates(TrustStore::Usage usage, bool throwOnFailure) {
    const detail::ScopedErrorQueueMark errorQueue;
    TrustStoreImpl imported(nullptr);
    importThrough(imported, usage, throwOnFailure);
}

TrustImportReport TrustStoreImpl::addSystemCertificatesWithReport(TrustStore::Usage usage) {
    const detail::ScopedErrorQueueMark errorQueue;
    TrustStoreImpl imported(nullptr);
    detail::TrustImportRecorder recorder(imported, usage);
    // Certificates that cannot be read are reported, not thrown, so what reaches the adder
    // with throwOnFailure set is an internal failure, which must not be logged and forgotten.
    importThrough(imported, usage, true);
    return recorder.takeReport();
}

void TrustStoreImpl::importThrough(TrustStoreImpl& imported, TrustStore::Usage usage,
                                   bool throwOnFailure) {
    // Reading the platform's certificates is slow: it fills a store of its own, which nobody
    // waits for, and the result joins this one in a single step.
    std::exception_ptr failure;
    {
        const std::lock_guard<std::mutex> lock(adderMutex);
        try {
            if (systemCertificateAdder) {
                systemCertificateAdder->addSystemCertificates(imported, usage, throwOnFailure);
            }
        } catch (...) {
            failure = std::current_exception();
        }
    }
    const std::lock_guard<std::mutex> lock(contentMutex);
    {
        // What was added before a failure stays added, as it would have been in place.
        const detail::StoreListLock importedLock(imported.store.get());
        const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(imported.store.get());
        for (int index = 0; index < sk_X509_OBJECT_num(objects); ++index) {
            X509* certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, index));
            if (certificate != nullptr) addUnlocked(certificate);
        }
    }
    if (failure) std::rethrow_exception(failure);
    removeUnlocked(usage);
}

void TrustStoreImpl::removeExpiredAndInvalidCertificatesFor(TrustStore::Usage usage) {
    const detail::ScopedErrorQueueMark errorQueue;
    const std::lock_guard<std::mutex> lock(contentMutex);
    removeUnlocked(usage);
}

void TrustStoreImpl::removeUnlocked(TrustStore::Usage usage) {
    const detail::StoreListLock lock(store.get());
    STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store.get());

    // Collect first, remove afterwards: removing shifts the indices of the walk, and a failure
    // while collecting leaves the store as it was.
    std::vector<X509_OBJECT*> removed;
    for (int index = 0; index < sk_X509_OBJECT_num(objects); ++index) {
        X509_OBJECT* object = sk_X509_OBJECT_value(objects, index);
        X509* certificate =
            X509_OBJECT_get_type(object) == X509_LU_X509 ? X509_OBJECT_get0_X509(object) : nullptr;
        if (certificate == nullptr || detail::usageRefusal(certificate, usage)) {
            removed.push_back(object);
        }
    }
    for (X509_OBJECT* object : removed) {
        sk_X509_OBJECT_delete_ptr(objects, object);
        X509_OBJECT_free(object);
    }
}

X509* TrustStoreImpl::getCertificate(int index) const {
    const detail::ScopedErrorQueueMark errorQueue;
    const std::lock_guard<std::mutex> content(contentMutex);
    const detail::StoreListLock lock(store.get());
    return certificateAt(X509_STORE_get0_objects(store.get()), index);
}

std::vector<std::string> TrustStoreImpl::getPEMStrings() const {
    const detail::ScopedErrorQueueMark errorQueue;
    const std::lock_guard<std::mutex> content(contentMutex);
    const detail::StoreListLock lock(store.get());
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store.get());
    const int count = sk_X509_OBJECT_num(objects);
    std::vector<std::string> pems;
    if (count <= 0) return pems;
    pems.reserve(static_cast<std::size_t>(count));

    const BIOUPtr bio = makeBIOUPtr(BIO_new(BIO_s_mem()));
    if (!bio) throw TrustStoreException("Failed to convert X509 to PEM");
    for (int index = 0; index < count; ++index) {
        X509* certificate = certificateAt(objects, index);
        BIO_reset(bio.get());
        if (PEM_write_bio_X509(bio.get(), certificate) != 1) {
            throw TrustStoreException("Failed to convert X509 to PEM");
        }
        BUF_MEM* buffer = nullptr;
        BIO_get_mem_ptr(bio.get(), &buffer);
        if (buffer == nullptr) throw TrustStoreException("Failed to get PEM data from buffer");
        pems.emplace_back(buffer->data, buffer->length);
    }
    return pems;
}

std::size_t TrustStoreImpl::size() const {
    const std::lock_guard<std::mutex> content(contentMutex);
    const detail::StoreListLock lock(store.get());
    const int count = sk_X509_OBJECT_num(X509_STORE_get0_objects(store.get()));
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool TrustStoreImpl::empty() const { return size() == 0; }

X509_STORE* TrustStoreImpl::copyOpenSSLStore() const {
    const detail::ScopedErrorQueueMark errorQueue;
    // Certificates and CRLs in a store are never modified, so the copy shares them by reference
    // count instead of duplicating each one.
    const std::lock_guard<std::mutex> content(contentMutex);
    return detail::copyStoreObjects(store.get()).release();
}

std::shared_ptr<X509_STORE> TrustStoreImpl::verificationStore() const {
    const std::lock_guard<std::mutex> content(contentMutex);
    verificationSnapshot = detail::StoreSnapshot::of(store.get(), verificationSnapshot);
    // The pointer keeps the snapshot, and so its store, alive.
    return std::shared_ptr<X509_STORE>(verificationSnapshot, verificationSnapshot->store());
}

std::shared_ptr<X509_STORE> TrustStoreImpl::getOpenSSLStore() const { return store; }

}  // namespace foundation::certificates
