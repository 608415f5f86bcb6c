// PKCS7Certificate: a PKCS#7 signed-data structure (a certificate bundle, or a signature with or
// without its content), loaded from PEM or DER.
//
// The object keeps the parsed structure, which is what it writes out and what the signature
// operations read, and the list of certificates found in it at load. The two are separate
// afterwards: addCertificate extends the list, never the structure. A moved-from object throws
// PKCS7CertificateException "Error: PKCS7Certificate is uninitialized." from every accessor;
// addCertificate brings it back to use.
//
// Thread safety: every operation, assignment and swap included, may run concurrently with any
// other on the same object; a reader sees the object from before or after a change, never a mix.
// The object is locked only to take or replace its contents, never for the work. Copies share
// the parsed structure, and OpenSSL calls on one structure (writing it out, verifying) take
// turns.
//
//   foundation::certificates::PKCS7Certificate bundle(pemOrDerBytes);
//   for (const auto& certificate : bundle.getCertificates()) std::cout << certificate;
#pragma once

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::certificates {

class PKCS7CertificateImpl;

class FOUNDATION_CERTIFICATES_EXPORT PKCS7Certificate {
  public:
    // No structure and no certificates.
    PKCS7Certificate();

    // PEM when "-----BEGIN PKCS7-----" occurs anywhere in the data, DER otherwise. Only the
    // signed and the signed-and-enveloped types are accepted; a structure without certificates
    // loads as an empty object. Throws InvalidArgument for empty or unreadable input, data that
    // is not in the detected encoding and other content types, and PKCS7CertificateException
    // for other parse failures and refused certificates. The stream is read to its end.
    explicit PKCS7Certificate(std::istream& input);
    explicit PKCS7Certificate(const std::string& data);
    explicit PKCS7Certificate(const ByteArray& data);

    // Copying shares the source's structure and certificates. Copying a moved-from object
    // throws "Error: PKCS7Certificate is uninitialized.".
    PKCS7Certificate(const PKCS7Certificate& other);
    PKCS7Certificate& operator=(const PKCS7Certificate& other);

    // swap is two assignments, each atomic: a concurrent assignment to one of the two objects
    // may be overwritten.
    PKCS7Certificate(PKCS7Certificate&& other) noexcept;
    PKCS7Certificate& operator=(PKCS7Certificate&& other) noexcept;
    void swap(PKCS7Certificate& other) noexcept;

    ~PKCS7Certificate();

    // Appends a copy to the list; the structure, and so getAsBytes, is not changed. Throws
    // InvalidArgument "The provided certificate has no content." for an empty certificate.
    void addCertificate(const X509Certificate& certificate);

    // The certificates of the structure in its order, then the added ones.
    std::vector<X509Certificate> getCertificates() const;
    std::size_t getNumCertificates() const;
    bool empty() const;

    // The structure as PEM text, in OpenSSL's 64-column layout; empty when the list is empty.
    // Throws PKCS7CertificateException "Unable to write out the PKCS7 data" when there is no
    // structure to write (certificates added to a default-constructed object).
    ByteArray getAsBytes() const;
    std::string getAsString() const;

    // Checks the signature over the attached content (data empty) or over data (a detached
    // signature), and the signer's certificate path to trustStore; an empty trustStore stands
    // for the platform's certificates trusted for signing or TLS. chain helps build the path,
    // and its certificates are also put into the store the signature is verified against, so
    // they count as trusted: pass only certificates you trust there. Neither argument changes.
    //
    // Outcomes come back in the record: a signature that does not verify (or content that is
    // missing or altered) gives (false, ValidationFailed, OpenSSL's reason); a correct signature
    // whose signer does not chain to the store gives true and the status of validateCertificate
    // with nothing tolerated. The reason is that of the earliest error in this thread's OpenSSL
    // queue, which is not cleared first: an error the caller left there is reported instead.
    // Throws PKCS7CertificateException only for internal failures.
    PKCS7CertificateValidationResults verifySignature(const X509CertificateChain& chain,
                                                      const TrustStore& trustStore,
                                                      const ByteArray& data) const;

    // The certificates of the signers, looked up among those inside the structure, in signer
    // order. Empty for a bundle without signers or when a signer's certificate is missing; the
    // OpenSSL error that says why stays queued.
    X509CertificateChain getSignerCerts() const;

    // The attached content, once its signature verifies with the certificates inside the
    // structure (their paths are not checked). Empty for a detached signature and for one that
    // does not verify; the OpenSSL error that says why stays queued.
    ByteArray getSignedData() const;

    void print(std::ostream& os) const;

    // Element-wise equality of the certificate lists; the structures are not compared.
    bool operator==(const PKCS7Certificate& other) const;
    bool operator!=(const PKCS7Certificate& other) const;

    void throwIfImplEmpty() const;

  private:
    friend struct detail::FacadeAccess;

    std::shared_ptr<const PKCS7CertificateImpl> impl;
    mutable std::mutex mutex;
};

FOUNDATION_CERTIFICATES_EXPORT std::ostream& operator<<(std::ostream& os,
                                                        const PKCS7Certificate& pkcs7);

}  // namespace foundation::certificates
