#include "PlatformTrust.hpp"

#include <foundation/certificates/TrustStore.hpp>

#include "ExceptionLog.hpp"
#include "StoreSnapshot.hpp"
#include "TrustStoreAccess.hpp"
#include "platform/bundle/BundleSecurityPlatform.hpp"

#include <ctime>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::certificates::detail {

namespace {

struct PlatformStore {
    // The key is what the sources held, not their file times, which a rewrite within the file
    // system's timestamp granularity leaves unchanged.
    std::shared_ptr<const TrustSourceContents> contents;
    std::shared_ptr<X509_STORE> store;
    std::vector<std::string> logRecords;
    std::time_t validUntil = 0;  // the earliest end of validity among the kept certificates
};

// The filter keeps a certificate until its notAfter lies in the past, so the kept set stays the
// same up to and including the earliest notAfter among them.
std::time_t earliestExpiry(X509_STORE* store) {
    std::time_t earliest = std::numeric_limits<std::time_t>::max();
    const StoreListLock lock(store);
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        const X509* certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
        std::tm expiry{};
        if (certificate == nullptr ||
            ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &expiry) != 1) {
            continue;
        }
        earliest = std::min(earliest, timegm(&expiry));
    }
    return earliest;
}

std::shared_ptr<const PlatformStore> build(std::shared_ptr<const TrustSourceContents> contents) {
    auto built = std::make_shared<PlatformStore>();
    built->contents = contents;
    const LogRecordCapture capture;
    // Built from exactly the contents of its key.
    TrustStore platform(makeContentsAdder(std::move(contents)));
    platform.addSystemCertificates(TrustStore::Usage::Signing, false);
    platform.addSystemCertificates(TrustStore::Usage::SSL, false);
    // Nobody else holds this store: it becomes the read-only copy as it is.
    built->store = getOpenSSLStore(platform);
    built->logRecords = capture.records();
    built->validUntil = earliestExpiry(built->store.get());
    return built;
}

}  // namespace

std::shared_ptr<X509_STORE> platformVerificationStore() {
    static std::mutex mutex;
    static std::shared_ptr<const PlatformStore> cached;

    auto contents = std::make_shared<const TrustSourceContents>(readTrustSources());
    std::shared_ptr<const PlatformStore> current;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        current = cached;
    }
    if (current && *current->contents == *contents && std::time(nullptr) <= current->validUntil) {
        writeLogRecords(current->logRecords);
    } else {
        current = build(std::move(contents));
        const std::lock_guard<std::mutex> lock(mutex);
        cached = current;
    }
    return std::shared_ptr<X509_STORE>(current, current->store.get());
}

std::shared_ptr<X509_STORE> trustedVerificationStore(const TrustStore& trustStore) {
    std::shared_ptr<X509_STORE> store;
    if (!trustStore.empty()) store = TrustStoreAccess::verificationStore(trustStore);
    if (!store) store = platformVerificationStore();
    return store;
}

}  // namespace foundation::certificates::detail
