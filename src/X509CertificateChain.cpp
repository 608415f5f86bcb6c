#include <foundation/certificates/X509CertificateChain.hpp>

#include "FacadeAccess.hpp"
#include "X509CertificateChainImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <optional>
#include <ostream>

namespace foundation::certificates {

using detail::FacadeAccess;
using Impl = X509CertificateChainImpl;

X509CertificateChain::X509CertificateChain() : impl(std::make_shared<Impl>()) {}

X509CertificateChain::X509CertificateChain(std::istream& input)
    : impl(std::make_shared<Impl>(input)) {}

X509CertificateChain::X509CertificateChain(const std::string& pemText)
    : impl(std::make_shared<Impl>(pemText)) {}

X509CertificateChain::X509CertificateChain(const X509CertificateChain& other)
    : impl(FacadeAccess::current(other)) {}

X509CertificateChain& X509CertificateChain::operator=(const X509CertificateChain& other) {
    FacadeAccess::assign(*this, other);
    return *this;
}

X509CertificateChain::X509CertificateChain(X509CertificateChain&& other) noexcept
    : impl(FacadeAccess::release(other)) {}

X509CertificateChain& X509CertificateChain::operator=(X509CertificateChain&& other) noexcept {
    FacadeAccess::swap(*this, other);
    return *this;
}

void X509CertificateChain::swap(X509CertificateChain& other) noexcept {
    FacadeAccess::swap(*this, other);
}

X509CertificateChain::~X509CertificateChain() = default;

void X509CertificateChain::throwIfImplEmpty() const {
    if (!impl) {
        throw X509CertificateChainException("Error: X509CertificateChain is uninitialized.");
    }
}

void X509CertificateChain::addCertificate(const X509Certificate& certificate) {
    // Read before this chain is locked: one facade lock at a time.
    auto added = FacadeAccess::current(certificate);
    if (added->empty()) throw InvalidArgument("The provided certificate has no content.");
    FacadeAccess::change(*this, [&added](const std::shared_ptr<const Impl>& current) {
        // A moved-from chain starts again from an empty one.
        auto next = current ? std::make_shared<Impl>(*current) : std::make_shared<Impl>();
        next->addCertificate(std::move(added));
        return next;
    });
}

std::vector<X509Certificate> X509CertificateChain::getCertificates() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getCertificates(); });
}

std::size_t X509CertificateChain::getNumCertificates() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getNumCertificates(); });
}

bool X509CertificateChain::empty() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.empty(); });
}

std::string X509CertificateChain::getAsString() const {
    return FacadeAccess::read(*this, [](const Impl& i) { return i.getAsString(); });
}

void X509CertificateChain::print(std::ostream& os) const {
    FacadeAccess::read(*this, [&os](const Impl& i) { i.print(os); });
}

X509Certificate X509CertificateChain::popLeafCertificate() {
    std::optional<X509Certificate> leaf;
    FacadeAccess::change(*this, [this, &leaf](const std::shared_ptr<const Impl>& current) {
        if (!current) throwIfImplEmpty();
        auto next = std::make_shared<Impl>(*current);
        leaf.emplace(next->popLeafCertificate());
        return next;
    });
    return std::move(*leaf);
}

bool X509CertificateChain::operator==(const X509CertificateChain& other) const {
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
