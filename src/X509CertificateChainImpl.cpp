#include "X509CertificateChainImpl.hpp"

#include "FacadeAccess.hpp"
#include "OpenSSLErrors.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <openssl/err.h>
#include <openssl/pem.h>

#include <climits>
#include <cstring>
#include <istream>
#include <iterator>
#include <ostream>

namespace foundation::certificates {

namespace {

constexpr char kBeginLine[] = "-----BEGIN CERTIFICATE-----\n";
constexpr char kEndLine[] = "\n-----END CERTIFICATE-----\n";

std::string readStream(std::istream& input) {
    if (input.rdstate() != std::ios_base::goodbit) {
        throw InvalidArgument("The input certificate chain data stream is invalid.");
    }
    try {
        return std::string(std::istreambuf_iterator<char>(input.rdbuf()),
                           std::istreambuf_iterator<char>());
    } catch (const std::exception& e) {
        throw InvalidArgument(
            std::string("The input X509 certificate chain data stream is invalid. Reason:") +
            e.what());
    }
}

}  // namespace

X509CertificateChainImpl::X509CertificateChainImpl() = default;

X509CertificateChainImpl::X509CertificateChainImpl(std::istream& input) { init(readStream(input)); }

X509CertificateChainImpl::X509CertificateChainImpl(const std::string& pemText) { init(pemText); }

X509CertificateChainImpl::X509CertificateChainImpl(const X509CertificateChainImpl& other) = default;

X509CertificateChainImpl::X509CertificateChainImpl(X509CertificateChainImpl&& other) noexcept
    : certificates(std::move(other.certificates)) {
    other.certificates.clear();
}

X509CertificateChainImpl& X509CertificateChainImpl::operator=(
    const X509CertificateChainImpl& other) {
    if (this != &other) certificates = other.certificates;
    return *this;
}

X509CertificateChainImpl& X509CertificateChainImpl::operator=(
    X509CertificateChainImpl&& other) noexcept {
    if (this != &other) {
        certificates = std::move(other.certificates);
        other.certificates.clear();
    }
    return *this;
}

X509CertificateChainImpl::~X509CertificateChainImpl() = default;

void X509CertificateChainImpl::init(const std::string& pemText) {
    if (pemText.empty()) {
        throw InvalidArgument("The provided certificate chain string has no content.");
    }
    const detail::LoaderErrorQueueGuard errorQueue;

    // The text ends at its first NUL, as it would written with BIO_puts; the BIO reads it in
    // place and ends like a written memory BIO.
    const std::size_t length = std::strlen(pemText.c_str());
    const BIOUPtr bio = makeBIOUPtr(
        length <= INT_MAX ? BIO_new_mem_buf(pemText.data(), static_cast<int>(length)) : nullptr);
    if (!bio) {
        throw X509CertificateChainException(
            "Internal error: The given certificate chain could not be written to a buffer.");
    }
    BIO_set_mem_eof_return(bio.get(), -1);

    // A damaged block anywhere makes OpenSSL return no stack at all: zero records.
    const X509INFOStackUPtr records =
        makeX509INFOStackUPtr(PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr));
    const int count = records ? sk_X509_INFO_num(records.get()) : 0;
    std::vector<std::shared_ptr<const X509CertificateImpl>> loaded;
    loaded.reserve(static_cast<std::size_t>(count));
    try {
        for (int i = 0; i < count; ++i) {
            X509* parsed = sk_X509_INFO_value(records.get(), i)->x509;
            // The record is ours alone: take a reference instead of a duplicate.
            if (parsed != nullptr) X509_up_ref(parsed);
            loaded.push_back(std::make_shared<const X509CertificateImpl>(
                X509CertificateImpl::fromParsed(makeX509SPtr(parsed))));
        }
    } catch (const CertificateException& e) {
        throw X509CertificateChainException(
            std::string("Error: Unable to parse X509 certificate inside X509 certificate chain.") +
            e.what());
    }
    if (loaded.empty() || ERR_peek_error() != 0) {
        throw X509CertificateChainException("Error: Loading a certificate chain failed. Reason=" +
                                            detail::getOpenSSLErrorReason());
    }
    certificates = std::move(loaded);
}

void X509CertificateChainImpl::addCertificate(
    std::shared_ptr<const X509CertificateImpl> certificate) {
    certificates.push_back(std::move(certificate));
}

std::vector<X509Certificate> X509CertificateChainImpl::getCertificates() const {
    std::vector<X509Certificate> values;
    values.reserve(certificates.size());
    for (const auto& certificate : certificates) {
        values.push_back(detail::FacadeAccess::wrap<X509Certificate>(certificate));
    }
    return values;
}

void X509CertificateChainImpl::throwIfEmpty() const {
    if (certificates.empty()) {
        throw X509CertificateChainException("X509CertificateChain has no content.");
    }
}

std::string X509CertificateChainImpl::getAsString() const {
    std::string text;
    for (const auto& certificate : certificates) {
        text += kBeginLine;
        text += certificate->getAsString();
        text += kEndLine;
    }
    return text;
}

void X509CertificateChainImpl::print(std::ostream& os) const {
    os << "Printing certificate chain.\n"
       << "---------------------------\n";
    for (const auto& certificate : certificates) {
        certificate->print(os);
        os << '\n' << std::flush;
    }
}

X509Certificate X509CertificateChainImpl::popLeafCertificate() {
    throwIfEmpty();
    for (auto it = certificates.begin(); it != certificates.end(); ++it) {
        if (!(*it)->isCACertificate()) {
            X509Certificate leaf = detail::FacadeAccess::wrap<X509Certificate>(std::move(*it));
            certificates.erase(it);
            return leaf;
        }
    }
    throw X509CertificateChainException(
        "Unable to find a leaf certificate in the given certificate chain");
}

}  // namespace foundation::certificates
