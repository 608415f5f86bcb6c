// X509CertificateChain: an ordered list of certificates, typically untrusted intermediates.
//
// Loaded from PEM text holding one or more certificate blocks; kept in the order read or added,
// never sorted, deduplicated or linked. Copies share the certificates. A moved-from chain throws
// X509CertificateChainException "Error: X509CertificateChain is uninitialized." from every
// accessor; addCertificate brings it back to use.
//
// Thread safety: every operation, assignment and swap included, may run concurrently with any
// other on the same object; a reader sees the list from before or after a change, never a mix.
// The object is locked only to take or replace its list, never while a certificate is read.
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::certificates {

class X509CertificateChainImpl;

class FOUNDATION_CERTIFICATES_EXPORT X509CertificateChain {
  public:
    // An empty chain.
    X509CertificateChain();

    // Every PEM certificate block of the text, in order; text around the blocks is skipped.
    // Throws InvalidArgument for an empty text or an unreadable stream, and
    // X509CertificateChainException when a block is damaged, holds no certificate, or a
    // certificate is refused (the whole chain fails; there is no partial result).
    explicit X509CertificateChain(std::istream& input);
    explicit X509CertificateChain(const std::string& pemText);

    X509CertificateChain(const X509CertificateChain& other);
    X509CertificateChain& operator=(const X509CertificateChain& other);
    // swap is two assignments, each atomic: a concurrent assignment to one of the two chains may
    // be overwritten.
    X509CertificateChain(X509CertificateChain&& other) noexcept;
    X509CertificateChain& operator=(X509CertificateChain&& other) noexcept;
    void swap(X509CertificateChain& other) noexcept;
    ~X509CertificateChain();

    // Appends a copy. Throws InvalidArgument "The provided certificate has no content." for an
    // empty certificate.
    void addCertificate(const X509Certificate& certificate);

    std::vector<X509Certificate> getCertificates() const;
    std::size_t getNumCertificates() const;
    bool empty() const;

    // Each certificate as a begin line, its base64 DER on one line, and an end line.
    std::string getAsString() const;

    void print(std::ostream& os) const;

    // Removes and returns the first certificate that is not a CA certificate. Throws
    // X509CertificateChainException when the chain is empty or every certificate is a CA.
    X509Certificate popLeafCertificate();

    // Element-wise equality.
    bool operator==(const X509CertificateChain& other) const;
    bool operator!=(const X509CertificateChain& other) const;

    void throwIfImplEmpty() const;

  private:
    friend struct detail::FacadeAccess;

    std::shared_ptr<const X509CertificateChainImpl> impl;
    mutable std::mutex mutex;
};

FOUNDATION_CERTIFICATES_EXPORT std::ostream& operator<<(std::ostream& os,
                                                        const X509CertificateChain& chain);

}  // namespace foundation::certificates
