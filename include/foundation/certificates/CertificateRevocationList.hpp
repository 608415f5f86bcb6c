// CertificateRevocationList: one X.509 certificate revocation list, loaded from PEM or DER.
//
// A value type over an immutable parsed list: copies share it, so copying is cheap and copies may
// be used from several threads at once. Lists handed to validation (see
// CertificateValidationOptions::withRevocationLists) or kept by a CrlCache are shared the same
// way, never copied.
//
//   foundation::certificates::CertificateRevocationList list(derBytes);
//   if (list.isSignedBy(issuer)) std::cout << list;
#pragma once

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/Types.hpp>

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace foundation::certificates {

class X509Certificate;

namespace detail {
struct RevocationListAccess;
}

// One entry of a list.
struct RevokedCertificate {
    std::string serialNumber;    // decimal
    std::string revocationDate;  // as certificates print times, e.g. "Mar  5 14:07:09 2025 GMT"
    TimePoint revocationDateTimePoint;
    std::optional<int> reason;  // the CRLReason code, when the entry carries one

    bool operator==(const RevokedCertificate& other) const {
        return serialNumber == other.serialNumber && revocationDate == other.revocationDate &&
               revocationDateTimePoint == other.revocationDateTimePoint && reason == other.reason;
    }
};

class FOUNDATION_CERTIFICATES_EXPORT CertificateRevocationList {
  public:
    // An empty list: empty() is true, content accessors throw
    // CertificateRevocationListException "Error: CertificateRevocationList has no content.".
    CertificateRevocationList();

    // PEM when "-----BEGIN X509 CRL-----" occurs anywhere in the data, DER otherwise. Throws
    // InvalidArgument for empty input or a stream that is not good, and
    // CertificateRevocationListException with OpenSSL's reason for data that does not parse.
    // The stream is read to its end; the other forms parse the caller's bytes in place.
    explicit CertificateRevocationList(std::istream& input);
    explicit CertificateRevocationList(const std::string& data);
    explicit CertificateRevocationList(const ByteArray& data);

    CertificateRevocationList(const CertificateRevocationList& other);
    CertificateRevocationList& operator=(const CertificateRevocationList& other);
    CertificateRevocationList(CertificateRevocationList&& other) noexcept;
    CertificateRevocationList& operator=(CertificateRevocationList&& other) noexcept;
    ~CertificateRevocationList();

    bool empty() const noexcept;

    // RFC 2253 text, as certificates print names.
    std::string getIssuerName() const;

    std::string getLastUpdate() const;
    TimePoint getLastUpdateTimePoint() const;
    // Absent when the list names no next update.
    std::optional<std::string> getNextUpdate() const;
    std::optional<TimePoint> getNextUpdateTimePoint() const;

    // In ascending serial-number order.
    std::vector<RevokedCertificate> getRevokedCertificates() const;

    // The list's signature verifies with the certificate's public key.
    bool isSignedBy(const X509Certificate& issuer) const;

    ByteArray getAsBytes() const;  // DER
    std::string getAsPEMString() const;
    // 64 lower-case hex digits of the SHA-256 digest of the DER encoding.
    std::string getSHA256Fingerprint() const;

    // Equal SHA-256 fingerprints; two empty lists are equal.
    bool operator==(const CertificateRevocationList& other) const;
    bool operator!=(const CertificateRevocationList& other) const;

  private:
    friend struct detail::RevocationListAccess;
    struct Data;

    explicit CertificateRevocationList(std::shared_ptr<const Data> data);
    const Data& content() const;

    std::shared_ptr<const Data> data;
};

// A short summary: issuer, update times, number of entries, fingerprint.
FOUNDATION_CERTIFICATES_EXPORT std::ostream& operator<<(std::ostream& os,
                                                        const CertificateRevocationList& list);

}  // namespace foundation::certificates
