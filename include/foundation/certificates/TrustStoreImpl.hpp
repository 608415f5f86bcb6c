// TrustStoreImpl: the unlocked implementation behind TrustStore.
//
// Public because an ISystemCertificateAdder receives one and feeds it with addCertificateDER.
// Every operation is safe to call from several threads at once: each change of the
// certificates is one step for the others. OpenSSL errors raised inside an operation are
// discarded; errors the caller had queued before stay queued.
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/ISystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>

#include <openssl/x509.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::certificates {

namespace detail {
class StoreSnapshot;
struct TrustStoreAccess;
}  // namespace detail

class FOUNDATION_CERTIFICATES_EXPORT TrustStoreImpl {
  public:
    // With the platform's adder.
    TrustStoreImpl();
    // With the given adder, which may be empty (then no system certificates are added).
    explicit TrustStoreImpl(std::unique_ptr<ISystemCertificateAdder> adder);
    // A new store sharing the other's certificates and CRLs, with a clone of its adder. The
    // other is read under its own locks; the guard is not needed and is ignored.
    TrustStoreImpl(const TrustStoreImpl& other, const std::lock_guard<std::mutex>&);
    TrustStoreImpl(TrustStoreImpl&& other) noexcept;
    TrustStoreImpl(const TrustStoreImpl&) = delete;
    TrustStoreImpl& operator=(const TrustStoreImpl&) = delete;
    ~TrustStoreImpl();

    // Parses the DER bytes and adds the certificate. Bytes that do not parse throw
    // "Failed to parse DER data to X509 certificate." followed by their size and a dump.
    void addCertificateDER(const ByteArray& bytes);
    // The store takes its own reference; the caller keeps its certificate. A certificate the
    // store already holds is accepted silently.
    void addCertificateX509(X509* certificate);

    // Runs the adder on a new store of its own, adds what it added, then
    // removeExpiredAndInvalidCertificatesFor(usage). Other threads see the certificates from
    // before the import or after it, and do not wait while the adder runs.
    void addSystemCertificates(TrustStore::Usage usage, bool throwOnFailure);
    // The same import, recording what the adder hands over.
    TrustImportReport addSystemCertificatesWithReport(TrustStore::Usage usage);
    // Removes every CRL and every certificate that has expired or is not valid for the usage.
    void removeExpiredAndInvalidCertificatesFor(TrustStore::Usage usage);

    // The certificate at an index of the store's object list, borrowed from the store. Throws
    // "Unsupported object type found in TrustStore" for a CRL or an index out of range.
    X509* getCertificate(int index) const;
    std::vector<std::string> getPEMStrings() const;
    std::size_t size() const;
    bool empty() const;

    // A new store with the same objects; the caller frees it. Null only when OpenSSL cannot
    // allocate a store.
    X509_STORE* copyOpenSSLStore() const;
    std::shared_ptr<X509_STORE> getOpenSSLStore() const;

  private:
    friend struct detail::TrustStoreAccess;

    // A read-only copy of the store for verifications, rebuilt only when the store's
    // certificates have changed since the last one.
    std::shared_ptr<X509_STORE> verificationStore() const;

    struct CopyTag {};
    TrustStoreImpl(const TrustStoreImpl& other, CopyTag);

    // Runs the adder on `imported`, a store of its own, then adds what it added and filters.
    void importThrough(TrustStoreImpl& imported, TrustStore::Usage usage, bool throwOnFailure);
    // These two run with contentMutex held.
    void addUnlocked(X509* certificate);
    void removeUnlocked(TrustStore::Usage usage);

    std::shared_ptr<X509_STORE> store;
    std::unique_ptr<ISystemCertificateAdder> systemCertificateAdder;
    mutable std::shared_ptr<const detail::StoreSnapshot> verificationSnapshot;
    // One import at a time, and no clone of the adder during one.
    mutable std::mutex adderMutex;
    // Held for every change of the certificates and every read of them (and of the snapshot).
    // Never held while the adder runs or while another lock than the store's own is taken.
    mutable std::mutex contentMutex;
};

}  // namespace foundation::certificates
