// Helpers for trust store tests: quickly made certificates and an adder that adds given bytes.
#pragma once

#include "support/TestCertificates.hpp"

#include <foundation/certificates/ISystemCertificateAdder.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/TrustStoreImpl.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

// A self-signed P-256 certificate with a fresh serial number, a CA when `ca` is true.
foundation::certificates::X509UPtr makeQuickCertificate(
    const std::string& commonName, bool ca,
    std::vector<std::pair<int, std::string>> extensions = {}, long notBeforeOffset = -3600,
    long notAfterOffset = 365 * kDay);

// An adder as a caller would write one: adds the given DER blobs, in order, honouring
// throwOnFailure (failures are skipped, not logged). Counts its clones.
class ListAdder : public foundation::certificates::ISystemCertificateAdder {
  public:
    explicit ListAdder(std::vector<foundation::certificates::ByteArray> certificates,
                       std::shared_ptr<std::atomic<int>> cloneCount = nullptr);
    ISystemCertificateAdder* clone() const override;
    void addSystemCertificates(foundation::certificates::TrustStoreImpl& store,
                               foundation::certificates::TrustStore::Usage usage,
                               bool throwOnFailure) override;

  private:
    std::vector<foundation::certificates::ByteArray> certificates;
    std::shared_ptr<std::atomic<int>> cloneCount;
};

}  // namespace testsupport
