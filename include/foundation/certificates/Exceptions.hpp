// The exception tree. Every failure of the library is one of these, carrying only its message.
//
//   std::runtime_error
//   ├── CertificateException
//   │   ├── InvalidArgument            caller input empty, malformed or of the wrong encoding
//   │   ├── NotImplemented             declared for platform gaps; never thrown here
//   │   ├── X509CertificateException
//   │   ├── X509CertificateChainException
//   │   ├── PKCS7CertificateException
//   │   ├── PKCS12CertificateException
//   │   ├── CertificateRevocationListException
//   │   ├── IncorrectPassphrase        the PKCS#12 passphrase does not open the container
//   │   ├── NotRSAKey / NotECCKey      a key accessor of the other key family was called
//   │   └── UnsupportedKeyType / UnsupportedEllipticCurve
//   └── TrustStoreException            deliberately outside the CertificateException family
//
// The self-signed certificate builder is the one place that throws plain std::runtime_error.
#pragma once

#include <foundation/certificates/Export.hpp>

#include <stdexcept>
#include <string>

namespace foundation::certificates {

class FOUNDATION_CERTIFICATES_EXPORT CertificateException : public std::runtime_error {
  public:
    explicit CertificateException(const std::string& message);
    ~CertificateException() override;
};

class FOUNDATION_CERTIFICATES_EXPORT InvalidArgument : public CertificateException {
  public:
    explicit InvalidArgument(const std::string& message);
    ~InvalidArgument() override;
};

class FOUNDATION_CERTIFICATES_EXPORT NotImplemented : public CertificateException {
  public:
    explicit NotImplemented(const std::string& message);
    ~NotImplemented() override;
};

class FOUNDATION_CERTIFICATES_EXPORT X509CertificateException : public CertificateException {
  public:
    explicit X509CertificateException(const std::string& message);
    ~X509CertificateException() override;
};

class FOUNDATION_CERTIFICATES_EXPORT X509CertificateChainException : public CertificateException {
  public:
    explicit X509CertificateChainException(const std::string& message);
    ~X509CertificateChainException() override;
};

class FOUNDATION_CERTIFICATES_EXPORT PKCS7CertificateException : public CertificateException {
  public:
    explicit PKCS7CertificateException(const std::string& message);
    ~PKCS7CertificateException() override;
};

class FOUNDATION_CERTIFICATES_EXPORT PKCS12CertificateException : public CertificateException {
  public:
    explicit PKCS12CertificateException(const std::string& message);
    ~PKCS12CertificateException() override;
};

class FOUNDATION_CERTIFICATES_EXPORT CertificateRevocationListException
    : public CertificateException {
  public:
    explicit CertificateRevocationListException(const std::string& message);
    ~CertificateRevocationListException() override;
};

class FOUNDATION_CERTIFICATES_EXPORT IncorrectPassphrase : public CertificateException {
  public:
    explicit IncorrectPassphrase(const std::string& message);
    ~IncorrectPassphrase() override;
};

class FOUNDATION_CERTIFICATES_EXPORT NotRSAKey : public CertificateException {
  public:
    explicit NotRSAKey(const std::string& message);
    ~NotRSAKey() override;
};

class FOUNDATION_CERTIFICATES_EXPORT NotECCKey : public CertificateException {
  public:
    explicit NotECCKey(const std::string& message);
    ~NotECCKey() override;
};

class FOUNDATION_CERTIFICATES_EXPORT UnsupportedKeyType : public CertificateException {
  public:
    explicit UnsupportedKeyType(const std::string& message);
    ~UnsupportedKeyType() override;
};

class FOUNDATION_CERTIFICATES_EXPORT UnsupportedEllipticCurve : public CertificateException {
  public:
    explicit UnsupportedEllipticCurve(const std::string& message);
    ~UnsupportedEllipticCurve() override;
};

class FOUNDATION_CERTIFICATES_EXPORT TrustStoreException : public std::runtime_error {
  public:
    explicit TrustStoreException(const std::string& message);
    ~TrustStoreException() override;
};

}  // namespace foundation::certificates
