// The implementation behind PKCS7Certificate: the parsed structure and the certificate list.
// Never changed once a facade shares it: addCertificate builds a new one, sharing the structure
// and the certificates.
#pragma once

#include "OpenSSLPtr.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <iosfwd>
#include <memory>
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
    // Shares the structure and the certificates.
    PKCS7CertificateImpl(const PKCS7CertificateImpl& other);
    PKCS7CertificateImpl& operator=(const PKCS7CertificateImpl& other) = delete;
    ~PKCS7CertificateImpl();

    void init(const ByteArray& data);
    Encoding autodetectEncoding(const ByteArray& data) const;

    void addCertificate(std::shared_ptr<const X509CertificateImpl> certificate);
    std::vector<X509Certificate> getCertificates() const;
    std::size_t getNumCertificates() const noexcept { return certificates.size(); }
    bool empty() const noexcept { return certificates.empty(); }
    void throwIfEmpty() const;

    ByteArray getAsBytes() const;
    std::string getAsString() const;

    PKCS7CertificateValidationResults verifySignature(const X509CertificateChain& chain,
                                                      const TrustStore& trustStore,
                                                      const ByteArray& data) const;
    X509CertificateChain getSignerCerts() const;
    ByteArray getSignedData() const;

    void print(std::ostream& os) const;

  private:
    // OpenSSL's PKCS#7 routines may write to the structure they are given (the verifier records
    // its state in it), so the copies sharing one take turns calling them.
    struct Structure {
        detail::OpenSSLPtr<PKCS7> pkcs7;
        std::mutex mutex;
    };

    // Runs operation(PKCS7*) with the structure to itself; the pointer is null without one.
    template <typename Operation>
    auto withStructure(Operation&& operation) const {
        if (!structure) return operation(static_cast<PKCS7*>(nullptr));
        const std::lock_guard<std::mutex> lock(structure->mutex);
        return operation(structure->pkcs7.get());
    }

    std::vector<std::shared_ptr<const X509CertificateImpl>> certificates;
    std::shared_ptr<Structure> structure;
};

}  // namespace foundation::certificates
