// ISystemCertificateAdder: where a TrustStore gets the platform's trusted certificates.
//
// Write your own to fill trust stores from another source:
//
//   class BundleAdder : public foundation::certificates::ISystemCertificateAdder {
//     public:
//       ISystemCertificateAdder* clone() const override { return new BundleAdder(*this); }
//       void addSystemCertificates(TrustStoreImpl& store, TrustStore::Usage usage,
//                                  bool throwOnFailure) override {
//           for (const ByteArray& der : certificatesFor(usage)) store.addCertificateDER(der);
//       }
//   };
//   TrustStore store(std::make_unique<BundleAdder>());
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/TrustStore.hpp>

namespace foundation::certificates {

class TrustStoreImpl;

class FOUNDATION_CERTIFICATES_EXPORT ISystemCertificateAdder {
  public:
    ISystemCertificateAdder() = default;
    virtual ~ISystemCertificateAdder();

    // A new copy of this adder; the caller owns it. Called when a trust store is copied.
    virtual ISystemCertificateAdder* clone() const = 0;

    // Adds the platform's certificates trusted for the usage with store.addCertificateDER, one
    // call per certificate. When the store refuses one with TrustStoreException: rethrow it if
    // throwOnFailure is true, otherwise log it and go on. Other exceptions always propagate.
    // The store is a new one of the call's own; what it holds joins the TrustStore, in one step,
    // when the call returns. Calls on one adder never overlap.
    virtual void addSystemCertificates(TrustStoreImpl& store, TrustStore::Usage usage,
                                       bool throwOnFailure) = 0;

  protected:
    // Copied only through clone(), so a copy is never sliced.
    ISystemCertificateAdder(const ISystemCertificateAdder&) = default;
    ISystemCertificateAdder& operator=(const ISystemCertificateAdder&) = default;
};

}  // namespace foundation::certificates
