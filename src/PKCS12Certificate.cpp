#include <foundation/certificates/PKCS12Certificate.hpp>

#include "FacadeAccess.hpp"
#include "PKCS12CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <ostream>

namespace foundation::certificates {

using detail::FacadeAccess;
using Impl = PKCS12CertificateImpl;

PKCS12Certificate::PKCS12Certificate() : impl(std::make_shared<Impl>()) {}

PKCS12Certificate::PKCS12Certificate(std::istream& input, const std::string& passphrase)
    : impl(std::make_shared<Impl>(input, passphrase)) {}

PKCS12Certificate::PKCS12Certificate(const ByteArray& der, const std::string& passphrase)
    : impl(std::make_shared<Impl>(der, passphrase)) {}

PKCS12Certificate::PKCS12Certificate(const PKCS12Certificate& other)
    : impl(FacadeAccess::current(other)) {}

PKCS12Certificate& PKCS12Certificate::operator=(const PKCS12Certificate& other) {
    FacadeAccess::assign(*this, other);
    return *this;
}

PKCS12Certificate::PKCS12Certificate(PKCS12Certificate&& other) noexcept
    : impl(FacadeAccess::release(other)) {}

PKCS12Certificate& PKCS12Certificate::operator=(PKCS12Certificate&& other) noexcept {
    FacadeAccess::swap(*this, other);
    return *this;
}

void PKCS12Certificate::swap(PKCS12Certificate& other) noexcept {
    FacadeAccess::swap(*this, other);
}

PKCS12Certificate::~PKCS12Certificate() = default;

void PKCS12Certificate::throwIfImplEmpty() const {
    if (!impl) throw PKCS12CertificateException("Error: PKCS12Certificate is uninitialized.");
}

X509Certificate PKCS12Certificate::getCertificate() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getCertificate(); });
}

X509CertificateChain PKCS12Certificate::getCAChain() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getCAChain(); });
}

std::optional<PrivateKeyInfo> PKCS12Certificate::getPrivateKeyInfo() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getPrivateKeyInfo(); });
}

ByteArray PKCS12Certificate::getPrivateExponent() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getPrivateExponent(); });
}

bool PKCS12Certificate::empty() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.empty(); });
}

ByteArray PKCS12Certificate::getAsBytes() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getAsBytes(); });
}

void PKCS12Certificate::print(std::ostream& os) const {
    FacadeAccess::read(*this, [&os](const Impl& i) { i.print(os); });
}

bool PKCS12Certificate::operator==(const PKCS12Certificate& other) const {
    // The other object first: its "uninitialized" message wins when both are moved from.
    const auto theirs = FacadeAccess::current(other);
    const auto mine = FacadeAccess::current(*this);
    return *mine == *theirs;
}

bool PKCS12Certificate::operator!=(const PKCS12Certificate& other) const {
    return !(*this == other);
}

std::ostream& operator<<(std::ostream& os, const PKCS12Certificate& container) {
    container.print(os);
    return os;
}

}  // namespace foundation::certificates
