#include <foundation/certificates/Exceptions.hpp>

// Constructors and destructors live here, out of line, so that each class's vtable and type
// information are emitted once, in this library, with default visibility. An application's
// catch clause then matches the library's throw by type.
namespace foundation::certificates {

#define FOUNDATION_DEFINE_EXCEPTION(Class, Base)                \
    Class::Class(const std::string& message) : Base(message) {} \
    Class::~Class() = default;

FOUNDATION_DEFINE_EXCEPTION(CertificateException, std::runtime_error)
FOUNDATION_DEFINE_EXCEPTION(InvalidArgument, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(NotImplemented, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(X509CertificateException, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(X509CertificateChainException, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(PKCS7CertificateException, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(PKCS12CertificateException, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(CertificateRevocationListException, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(IncorrectPassphrase, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(NotRSAKey, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(NotECCKey, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(UnsupportedKeyType, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(UnsupportedEllipticCurve, CertificateException)
FOUNDATION_DEFINE_EXCEPTION(TrustStoreException, std::runtime_error)

#undef FOUNDATION_DEFINE_EXCEPTION

}  // namespace foundation::certificates
