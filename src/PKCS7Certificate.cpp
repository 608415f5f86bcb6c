#include "FacadeAccess.hpp"
#include "PKCS7CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>

#include <ostream>

namespace foundation::certificates {

using detail::FacadeAccess;
using Impl = PKCS7CertificateImpl;

PKCS7Certificate::PKCS7Certificate() : impl(std::make_shared<Impl>()) {}

PKCS7Certificate::PKCS7Certificate(std::istream& input) : impl(std::make_shared<Impl>(input)) {}

PKCS7Certificate::PKCS7Certificate(const std::string& data) : impl(std::make_shared<Impl>(data)) {}

PKCS7Certificate::PKCS7Certificate(const ByteArray& data) : impl(std::make_shared<Impl>(data)) {}

PKCS7Certificate::PKCS7Certificate(const PKCS7Certificate& other)
    : impl(FacadeAccess::current(other)) {}

PKCS7Certificate& PKCS7Certificate::operator=(const PKCS7Certificate& other) {
    FacadeAccess::assign(*this, other);
    return *this;
}

PKCS7Certificate::PKCS7Certificate(PKCS7Certificate&& other) noexcept
    : impl(FacadeAccess::release(other)) {}

PKCS7Certificate& PKCS7Certificate::operator=(PKCS7Certificate&& other) noexcept {
    FacadeAccess::swap(*this, other);
    return *this;
}

void PKCS7Certificate::swap(PKCS7Certificate& other) noexcept { FacadeAccess::swap(*this, other); }

PKCS7Certificate::~PKCS7Certificate() = default;

void PKCS7Certificate::throwIfImplEmpty() const {
    if (!impl) throw PKCS7CertificateException("Error: PKCS7Certificate is uninitialized.");
}

void PKCS7Certificate::addCertificate(const X509Certificate& certificate) {
    // Read before this object is locked: one facade lock at a time.
    auto added = FacadeAccess::current(certificate);
    if (added->empty()) throw InvalidArgument("The provided certificate has no content.");
    FacadeAccess::change(*this, [&added](const std::shared_ptr<const Impl>& current) {
        // A moved-from object starts again from a default-constructed one.
        auto next = current ? std::make_shared<Impl>(*current) : std::make_shared<Impl>();
        next->addCertificate(std::move(added));
        return next;
    });
}

std::vector<X509Certificate> PKCS7Certificate::getCertificates() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getCertificates(); });
}

std::size_t PKCS7Certificate::getNumCertificates() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getNumCertificates(); });
}

bool PKCS7Certificate::empty() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.empty(); });
}

ByteArray PKCS7Certificate::getAsBytes() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getAsBytes(); });
}

std::string PKCS7Certificate::getAsString() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getAsString(); });
}

PKCS7CertificateValidationResults PKCS7Certificate::verifySignature(
    const X509CertificateChain& chain, const TrustStore& trustStore, const ByteArray& data) const {
    return FacadeAccess::read(
        *this, [&](const Impl& i) { return i.verifySignature(chain, trustStore, data); });
}

X509CertificateChain PKCS7Certificate::getSignerCerts() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getSignerCerts(); });
}

ByteArray PKCS7Certificate::getSignedData() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getSignedData(); });
}

void PKCS7Certificate::print(std::ostream& os) const {
    FacadeAccess::read(*this, [&os](const Impl& i) { i.print(os); });
}

bool PKCS7Certificate::operator==(const PKCS7Certificate& other) const {
    const std::vector<X509Certificate> mine = getCertificates();
    const std::vector<X509Certificate> theirs = other.getCertificates();
    return mine == theirs;
}

bool PKCS7Certificate::operator!=(const PKCS7Certificate& other) const { return !(*this == other); }

std::ostream& operator<<(std::ostream& os, const PKCS7Certificate& pkcs7) {
    pkcs7.print(os);
    return os;
}

}  // namespace foundation::certificates
