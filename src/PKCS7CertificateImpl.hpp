// The implementation behind PKCS7Certificate: the parsed structure and the certificate list.
#pragma once

#include "OpenSSLPtr.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <iosfwd>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::certificates {

class PKCS7CertificateImpl {
  public:
    // The search key of encoding detection.
    static constexpr std::string_view pemHeader = "-----BEGIN PKCS7-----";

    PKCS7CertificateImpl();
    explicit PKCS7CertificateImpl(std::istream& input);
    explicit PKCS7CertificateImpl(const std::string& data);
    explicit PKCS7CertificateImpl(const ByteArray& data);
    // Duplicates the structure; the guard proves the caller holds the owning facade's lock.
    PKCS7CertificateImpl(const PKCS7CertificateImpl& other, const std::lock_guard<std::mutex>&);
    PKCS7CertificateImpl(PKCS7CertificateImpl&& other) noexcept;
    PKCS7CertificateImpl& operator=(const PKCS7CertificateImpl& other);
    PKCS7CertificateImpl& operator=(PKCS7CertificateImpl&& other) noexcept;
    ~PKCS7CertificateImpl();

    void init(const ByteArray& data);
    Encoding autodetectEncoding(const ByteArray& data) const;

    void addCertificate(const X509Certificate& certificate);
    const std::vector<X509Certificate>& getCertificates() const noexcept { return certificates; }
    std::size_t getNumCertificates() const noexcept { return certificates.size(); }
    bool empty() const noexcept { return certificates.empty(); }
    void throwIfEmpty() const;

    ByteArray getAsBytes() const;
    std::string getAsString() const;

    // Takes the chain's and the trust store's locks one at a time.
    PKCS7CertificateValidationResults verifySignature(const X509CertificateChain& chain,
                                                      const TrustStore& trustStore,
                                                      const ByteArray& data) const;
    X509CertificateChain getSignerCerts() const;
    ByteArray getSignedData() const;

    void print(std::ostream& os) const;

    // Borrowed; null in a default-constructed object.
    PKCS7* get() const noexcept { return pkcs7.get(); }

  private:
    std::vector<X509Certificate> certificates;
    detail::OpenSSLPtr<PKCS7> pkcs7;
};

}  // namespace foundation::certificates
