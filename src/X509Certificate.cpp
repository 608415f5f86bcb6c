#include <foundation/certificates/X509Certificate.hpp>

#include "FacadeAccess.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>

#include <ostream>

namespace foundation::certificates {

using detail::FacadeAccess;

X509Certificate::X509Certificate() : impl(std::make_shared<X509CertificateImpl>()) {}

X509Certificate::X509Certificate(std::istream& input)
    : impl(std::make_shared<X509CertificateImpl>(input)) {}

X509Certificate::X509Certificate(const std::string& data)
    : impl(std::make_shared<X509CertificateImpl>(data)) {}

X509Certificate::X509Certificate(const ByteArray& data)
    : impl(std::make_shared<X509CertificateImpl>(data)) {}

X509Certificate::X509Certificate(const X509* certificate)
    : impl(std::make_shared<X509CertificateImpl>(certificate)) {}

X509Certificate::X509Certificate(X509CertificateImpl& other)
    : impl(std::make_shared<X509CertificateImpl>(other.share())) {}

X509Certificate::X509Certificate(X509CertificateImpl&& other)
    : impl(std::make_shared<X509CertificateImpl>(std::move(other))) {}

X509Certificate::X509Certificate(std::shared_ptr<const X509CertificateImpl> impl) noexcept
    : impl(std::move(impl)) {}

X509Certificate::X509Certificate(const X509Certificate& other)
    : impl(FacadeAccess::current(other)) {}

X509Certificate& X509Certificate::operator=(const X509Certificate& other) {
    FacadeAccess::assign(*this, other);
    return *this;
}

X509Certificate::X509Certificate(X509Certificate&& other) noexcept
    : impl(FacadeAccess::release(other)) {}

X509Certificate& X509Certificate::operator=(X509Certificate&& other) noexcept {
    FacadeAccess::swap(*this, other);
    return *this;
}

void X509Certificate::swap(X509Certificate& other) noexcept { FacadeAccess::swap(*this, other); }

X509Certificate::~X509Certificate() = default;

void X509Certificate::throwIfImplEmpty() const {
    if (!impl) throw X509CertificateException("Error: X509Certificate is uninitialized.");
}

bool X509Certificate::empty() const {
    return FacadeAccess::read(*this, [](const X509CertificateImpl& i) { return i.empty(); });
}

X509Certificate X509Certificate::clone() const {
    return X509Certificate(
        FacadeAccess::read(*this, [](const X509CertificateImpl& i) { return i.clone(); }));
}

X509* X509Certificate::getOpenSSLCertificate() const {
    return FacadeAccess::read(
        *this, [](const X509CertificateImpl& i) { return i.getOpenSSLCertificate(); });
}

// Each accessor forwards to the implementation's accessor of the same name.
#define FOUNDATION_FORWARD(ReturnType, name)                                                     \
    ReturnType X509Certificate::name() const {                                                   \
        return FacadeAccess::read(*this, [](const X509CertificateImpl& i) { return i.name(); }); \
    }

FOUNDATION_FORWARD(ByteArray, getAsBytes)
FOUNDATION_FORWARD(std::string, getAsString)
FOUNDATION_FORWARD(std::string, getAsPEMString)
FOUNDATION_FORWARD(std::string, getSubjectName)
FOUNDATION_FORWARD(std::string, getIssuerName)
FOUNDATION_FORWARD(std::string, getSubjectCommonName)
FOUNDATION_FORWARD(std::string, getIssuerCommonName)
FOUNDATION_FORWARD(std::string, getSerialNumber)
FOUNDATION_FORWARD(std::string, getSignatureAlgorithm)
FOUNDATION_FORWARD(std::string, getValidNotBefore)
FOUNDATION_FORWARD(std::string, getValidNotAfter)
FOUNDATION_FORWARD(TimePoint, getValidNotBeforeTimePoint)
FOUNDATION_FORWARD(TimePoint, getValidNotAfterTimePoint)
FOUNDATION_FORWARD(std::string, getSHA256Fingerprint)
FOUNDATION_FORWARD(bool, isSelfSigned)
FOUNDATION_FORWARD(bool, isCACertificate)
FOUNDATION_FORWARD(bool, isValidForDigitalSigning)
FOUNDATION_FORWARD(PublicKeyInfo, getPublicKeyInfo)
FOUNDATION_FORWARD(X509Certificate::SubjectAlternativeNames, getSubjectAlternativeNames)
FOUNDATION_FORWARD(std::vector<std::string>, getCRLDistributionPoints)
FOUNDATION_FORWARD(std::vector<std::string>, getOCSPResponders)
FOUNDATION_FORWARD(std::vector<std::string>, getCAIssuers)
FOUNDATION_FORWARD(std::vector<X509Certificate::KeyUsage>, getKeyUsage)
FOUNDATION_FORWARD(std::vector<std::string>, getExtendedKeyUsage)
FOUNDATION_FORWARD(std::vector<std::string>, getCertificatePolicies)
FOUNDATION_FORWARD(std::optional<long>, getPathLengthConstraint)
FOUNDATION_FORWARD(ByteArray, getSubjectKeyIdentifier)
FOUNDATION_FORWARD(ByteArray, getAuthorityKeyIdentifier)
FOUNDATION_FORWARD(ByteArray, getSubjectPublicKeyInfo)
FOUNDATION_FORWARD(std::string, getSubjectPublicKeyInfoSHA256)

#undef FOUNDATION_FORWARD

std::unordered_map<std::string, std::string> X509Certificate::getSubjectNameAsRDNs() const {
    return FacadeAccess::read(
        *this, [](const X509CertificateImpl& i) { return i.getSubjectNameAsRDNs(); });
}

std::unordered_map<std::string, std::string> X509Certificate::getIssuerNameAsRDNs() const {
    return FacadeAccess::read(*this,
                              [](const X509CertificateImpl& i) { return i.getIssuerNameAsRDNs(); });
}

std::uint64_t X509Certificate::getKeySize() const { return getPublicKeyInfo().getKeySize(); }

ByteArray X509Certificate::getPublicExponent() const {
    return getPublicKeyInfo().getRSAPublicExponent();
}

ByteArray X509Certificate::getModulus() const { return getPublicKeyInfo().getRSAModulus(); }

bool X509Certificate::operator==(const X509Certificate& other) const {
    const std::string mine = getSHA256Fingerprint();
    const std::string theirs = other.getSHA256Fingerprint();
    return mine == theirs;
}

bool X509Certificate::operator!=(const X509Certificate& other) const { return !(*this == other); }

void X509Certificate::print(std::ostream& os) const {
    FacadeAccess::read(*this, [&os](const X509CertificateImpl& i) { i.print(os); });
}

CertificateValidationResults X509Certificate::validateCertificate(
    const X509CertificateChain& chain, const CertificateValidationOptions& options,
    const TrustStore& trustStore) const {
    return FacadeAccess::read(*this, [&](const X509CertificateImpl& i) {
        return i.validateCertificate(chain, options, trustStore);
    });
}

X509Certificate X509Certificate::getRootCACertificate(const X509CertificateChain& chain,
                                                      const TrustStore& trustStore) const {
    return X509Certificate(FacadeAccess::read(*this, [&](const X509CertificateImpl& i) {
        return i.getRootCACertificate(chain, trustStore);
    }));
}

std::ostream& operator<<(std::ostream& os, const X509Certificate& certificate) {
    certificate.print(os);
    return os;
}

STACK_OF(X509) * getCopyOfOpenSSLX509Stack(const std::vector<X509Certificate>& certificates) {
    X509StackUPtr stack = makeX509StackUPtr(sk_X509_new_null());
    if (!stack) throw X509CertificateException("Internal error: Unable to allocate a stack.");
    for (const X509Certificate& certificate : certificates) {
        X509UPtr duplicate =
            makeX509UPtr(FacadeAccess::read(certificate, [](const X509CertificateImpl& i) {
                i.throwIfEmpty();
                return X509_dup(i.get());
            }));
        if (!duplicate || sk_X509_push(stack.get(), duplicate.get()) <= 0) {
            throw X509CertificateException("Internal error: Unable to copy a certificate.");
        }
        duplicate.release();  // the stack owns it now
    }
    return stack.release();
}

X509StackUPtr detail::shareX509Stack(const std::vector<X509Certificate>& certificates) {
    X509StackUPtr stack = makeX509StackUPtr(sk_X509_new_null());
    if (!stack) throw X509CertificateException("Internal error: Unable to allocate a stack.");
    for (const X509Certificate& certificate : certificates) {
        const X509SPtr parsed = FacadeAccess::read(certificate, [](const X509CertificateImpl& i) {
            i.throwIfEmpty();
            return i.shared();
        });
        if (sk_X509_push(stack.get(), parsed.get()) <= 0) {
            throw X509CertificateException("Internal error: Unable to allocate a stack.");
        }
        X509_up_ref(parsed.get());
    }
    return stack;
}

}  // namespace foundation::certificates
