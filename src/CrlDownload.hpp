// Fetching one certificate's revocation list over HTTP and accepting it into a store.
//
// Every failure goes through one rule: with DownloadCRL::ThrowOnError it throws
// X509CertificateException with the failure's message; otherwise it is silent and the operation
// reports false (or an empty body).
#pragma once

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace foundation::certificates::detail {

using DownloadMode = CertificateValidationOptions::DownloadCRL;
using StoreUPtr = std::unique_ptr<X509_STORE, void (*)(X509_STORE*)>;

// Throws X509CertificateException(message) in ThrowOnError mode; does nothing otherwise.
void handleDownloadError(DownloadMode mode, const std::string& message);

// Every distribution point name of the certificate's CRL distribution points, in order.
std::vector<std::string> getCertificateURI(const X509Certificate& certificate);

// One HTTP/1.0 GET of http://host/path (port 80): the body, or empty after a non-fatal failure.
// Connecting has no time limit; once connected, 60 seconds cover the whole exchange.
std::string getCrlHttpData(const std::string& host, const std::string& path, DownloadMode mode);

// Reads a response from any stream: status line, headers, then the body until the stream ends.
std::string readHttpResponse(std::istream& response, DownloadMode mode);

// Fetches the certificate's list from its first http:// distribution point, verifies it with the
// issuer's key and its next update against `now` (the validation's time), adds it to the store
// and appends it to `crls`. True when the store accepted it.
bool downloadCRL(const X509Certificate& certificate, StoreUPtr& store,
                 std::vector<X509CRLUPtr>& crls, DownloadMode mode, EVP_PKEYUPtr& issuerKey,
                 TimePoint now);

}  // namespace foundation::certificates::detail
