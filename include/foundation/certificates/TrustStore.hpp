// TrustStore: the set of certificates a caller trusts, over one OpenSSL X509_STORE.
//
// Filled by hand (addCertificate) or from the platform's trusted certificates
// (addSystemCertificates), and handed to OpenSSL verification or TLS contexts, shared or copied.
// Failures are TrustStoreException, which is not a CertificateException.
//
// A moved-from store behaves as an empty one; adding to it starts a fresh store with the default
// adder.
//
// Thread safety: every operation, assignment and swap included, may run concurrently with any
// other on the same object; each addition (a whole import of system certificates included) is
// one step for the others, who see the certificates from before or after it. No call waits while
// another thread validates against the store or reads the platform's certificates, except
// another import or a copy of the same store: those wait for the import's adder to finish.
//
//   foundation::certificates::TrustStore roots;
//   roots.addSystemCertificates(TrustStore::Usage::SSL, false);
//   attachTrustStoreToSSLCTX(roots, context);
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/TrustImportReport.hpp>

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::certificates {

class ISystemCertificateAdder;
class TrustStoreImpl;
class X509Certificate;

namespace detail {
struct FacadeAccess;
}

class FOUNDATION_CERTIFICATES_EXPORT TrustStore {
  public:
    // What a certificate is trusted for. Other values are accepted; no certificate is valid for
    // them.
    enum class Usage : std::uint32_t {
        SSL = 0,      // TLS server authentication
        Signing = 1,  // code signing, e-mail protection, time stamping
    };

    // Uses the platform's adder for addSystemCertificates.
    TrustStore();
    // Takes the adder. An empty pointer makes addSystemCertificates add nothing (the filter
    // still runs).
    explicit TrustStore(std::unique_ptr<ISystemCertificateAdder> adder);

    // Copies share the certificates (which are never modified) but not the store: later
    // additions to one are not seen by the other. The copy gets its own clone of the adder.
    TrustStore(const TrustStore& other);
    TrustStore& operator=(const TrustStore& other);

    // swap is two assignments, each atomic: a concurrent assignment to one of the two stores may
    // be overwritten.
    TrustStore(TrustStore&& other) noexcept;
    TrustStore& operator=(TrustStore&& other) noexcept;
    void swap(TrustStore& other) noexcept;

    ~TrustStore();

    // Throws "Input certificate is empty." for a default-constructed certificate and
    // "Failed to add certificate to store" when OpenSSL refuses it. Adding a certificate the
    // store already holds does nothing.
    void addCertificate(const X509Certificate& certificate);

    // Adds the platform's trusted certificates for the usage, then removes every certificate of
    // the store (earlier additions included) that has expired or is not valid for the usage,
    // and every CRL. With throwOnFailure false, a certificate the store refuses is logged and
    // skipped; with true, its TrustStoreException stops the import.
    void addSystemCertificates(Usage usage, bool throwOnFailure);

    // The same import and filter, with an account of every certificate found instead of log
    // records: the number added for the usage and each one skipped with its reason. Unlike
    // addSystemCertificates it also skips certificates whose key X509Certificate refuses. A
    // certificate that cannot be read is reported, not thrown; only internal failures throw.
    TrustImportReport addSystemCertificatesWithReport(Usage usage);

    // Objects in the store: certificates and any CRLs that other code put there.
    std::size_t size() const;
    bool empty() const;

    // One PEM text per certificate, in the store's order (which is OpenSSL's, not insertion
    // order). Throws "Unsupported object type found in TrustStore" when the store holds a CRL.
    std::vector<std::string> getPEMStrings() const;

  private:
    friend struct detail::FacadeAccess;

    std::shared_ptr<TrustStoreImpl> impl;
    mutable std::mutex mutex;
};

// The live store, shared: certificates added later are seen through it. Empty for a moved-from
// trust store.
FOUNDATION_CERTIFICATES_EXPORT std::shared_ptr<X509_STORE> getOpenSSLStore(const TrustStore& store);
FOUNDATION_CERTIFICATES_EXPORT std::shared_ptr<X509_STORE> getUnderlyingStore(
    const TrustStore& store);

// A new store holding the same certificates and CRLs (not the verification parameters). The
// certificates are shared with the trust store by reference count, not duplicated: add to the
// copy freely, but do not modify its certificates. Null for a moved-from trust store.
FOUNDATION_CERTIFICATES_EXPORT std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> copyOpenSSLStore(
    const TrustStore& store);
// The same copy; the caller frees it with X509_STORE_free.
FOUNDATION_CERTIFICATES_EXPORT X509_STORE* copyUnderlyingStore(const TrustStore& store);

// Makes the context share the live store, so it sees certificates added later. Does nothing
// for a null context or a moved-from trust store.
FOUNDATION_CERTIFICATES_EXPORT void attachTrustStoreToSSLCTX(const TrustStore& store,
                                                             SSL_CTX* context);

// SSL: OpenSSL's TLS-server purpose check, judging the certificate as a CA when it is one.
// Signing: key usage, when present, allows digitalSignature, keyCertSign or cRLSign, and
// extended key usage, when present, names codeSigning, emailProtection, timeStamping or
// anyExtendedKeyUsage. Any other usage, or a null certificate: false.
FOUNDATION_CERTIFICATES_EXPORT bool isValidFor(X509* certificate, TrustStore::Usage usage);

}  // namespace foundation::certificates
