#include <foundation/certificates/X509CertificateChain.hpp>

#include "FacadeAccess.hpp"
#include "X509CertificateChainImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <ostream>

namespace foundation::certificates {

using detail::FacadeAccess;
using Impl = X509CertificateChainImpl;

X509CertificateChain::X509CertificateChain() : impl(std::make_unique<Impl>()) {}

X509CertificateChain::X509CertificateChain(std::istream& input)
    : impl(std::make_unique<Impl>(input)) {}

X509CertificateChain::X509CertificateChain(const std::string& pemText)
    : impl(std::make_unique<Impl>(pemText)) {}

X509CertificateChain::X509CertificateChain(const X509CertificateChain& other)
    : impl(FacadeAccess::copiedImpl(other)) {}

X509CertificateChain& X509CertificateChain::operator=(const X509CertificateChain& other) {
    X509CertificateChain copy(other);
    swap(copy);
    return *this;
}

X509CertificateChain::X509CertificateChain(X509CertificateChain&& other) noexcept
    : impl(std::move(other.impl)) {}

X509CertificateChain& X509CertificateChain::operator=(X509CertificateChain&& other) noexcept {
    swap(other);
    return *this;
}

void X509CertificateChain::swap(X509CertificateChain& other) noexcept { impl.swap(other.impl); }

X509CertificateChain::~X509CertificateChain() = default;

void X509CertificateChain::throwIfImplEmpty() const {
    if (!impl) {
        throw X509CertificateChainException("Error: X509CertificateChain is uninitialized.");
    }
}

void X509CertificateChain::addCertificate(const X509Certificate& certificate) {
    if (certificate.empty()) throw InvalidArgument("The provided certificate has no content.");
    const std::lock_guard<std::mutex> lock(mutex);
    if (!impl) impl = std::make_unique<Impl>();  // the one way back from a move
    impl->addCertificate(certificate);
}

std::vector<X509Certificate> X509CertificateChain::getCertificates() const {
    return FacadeAccess::locked(*this, [](const Impl& i) { return i.getCertificates(); });
}

std::size_t X509CertificateChain::getNumCertificates() const {
    return FacadeAccess::locked(*this, [](const Impl& i) { return i.getNumCertificates(); });
}

bool X509CertificateChain::empty() const {
    return FacadeAccess::locked(*this, [](const Impl& i) { return i.empty(); });
}

std::string X509CertificateChain::getAsString() const {
    if (empty()) return {};
    return FacadeAccess::locked(*this, [](const Impl& i) { return i.getAsString(); });
}

void X509CertificateChain::print(std::ostream& os) const {
    FacadeAccess::locked(*this, [&os](const Impl& i) { i.print(os); });
}

X509Certificate X509CertificateChain::popLeafCertificate() {
    return FacadeAccess::lockedMutable(*this, [](Impl& i) { return i.popLeafCertificate(); });
}

bool X509CertificateChain::operator==(const X509CertificateChain& other) const {
    // One lock at a time, so a chain compares with itself safely.
    const std::vector<X509Certificate> mine = getCertificates();
    const std::vector<X509Certificate> theirs = other.getCertificates();
    return mine == theirs;
}

bool X509CertificateChain::operator!=(const X509CertificateChain& other) const {
    return !(*this == other);
}

std::ostream& operator<<(std::ostream& os, const X509CertificateChain& chain) {
    chain.print(os);
    return os;
}

}  // namespace foundation::certificates
