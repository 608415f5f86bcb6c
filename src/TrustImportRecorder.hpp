// The account of an import of the platform's certificates: what the adder hands to the store is
// judged here instead of being added blindly, and what the platform keeps out is reported here.
#pragma once

#include <foundation/certificates/TrustImportReport.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>

#include <openssl/x509.h>

#include <optional>
#include <set>
#include <string>

namespace foundation::certificates {

class TrustStoreImpl;

namespace detail {

// Why a certificate does not belong in a store filtered for the usage (Expired or
// NotValidForUsage), or nothing when it does. The one rule of the filter and of the report.
std::optional<SkippedCertificate::Reason> usageRefusal(X509* certificate, TrustStore::Usage usage);

// Lives on the stack of the thread that runs the adder; the adder runs on that thread.
class TrustImportRecorder {
  public:
    TrustImportRecorder(const TrustStoreImpl& store, TrustStore::Usage usage);
    ~TrustImportRecorder();
    TrustImportRecorder(const TrustImportRecorder&) = delete;
    TrustImportRecorder& operator=(const TrustImportRecorder&) = delete;

    // The recorder of an import into this store running on this thread, or null.
    static TrustImportRecorder* activeFor(const TrustStoreImpl& store) noexcept;

    void addSource(const std::string& source);

    // Adds the certificate unless it is unreadable, expired, not valid for the usage or has a
    // key the library refuses; either way it is accounted for, once. Throws
    // TrustStoreException only when the store refuses a certificate that passed.
    void offer(TrustStoreImpl& store, const ByteArray& der);

    // A certificate the platform kept out; ignored when it is already accounted for.
    void keptOut(const ByteArray& der, SkippedCertificate::Reason reason,
                 const std::string& detail);

    TrustImportReport takeReport();

  private:
    void skip(const X509* certificate, std::string fingerprint, SkippedCertificate::Reason reason,
              std::string detail);

    const TrustStoreImpl& store_;
    TrustStore::Usage usage_;
    TrustImportRecorder* previous_;
    std::set<std::string> seen_;  // fingerprints of the certificates accounted for
    TrustImportReport report_;
};

}  // namespace detail
}  // namespace foundation::certificates
