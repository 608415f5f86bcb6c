#include "support/TestTrustStores.hpp"

#include "support/TestKeys.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <cstdio>

namespace testsupport {

namespace fc = foundation::certificates;

fc::X509UPtr makeQuickCertificate(const std::string& commonName, bool ca,
                                  std::vector<std::pair<int, std::string>> extensions,
                                  long notBeforeOffset, long notAfterOffset) {
    static std::atomic<unsigned> nextSerial{0x5000};
    char serial[16];
    std::snprintf(serial, sizeof serial, "%X", nextSerial++);

    CertificateRecipe recipe;
    recipe.subject = {{"O", "Foundation Trust Test"}, {"CN", commonName}};
    recipe.key = sharedKey(KeyKind::P256);
    recipe.ca = ca;
    recipe.serialHex = serial;
    recipe.extensions = std::move(extensions);
    recipe.notBeforeOffset = notBeforeOffset;
    recipe.notAfterOffset = notAfterOffset;
    return makeCertificate(recipe);
}

ListAdder::ListAdder(std::vector<fc::ByteArray> certificates,
                     std::shared_ptr<std::atomic<int>> cloneCount)
    : certificates(std::move(certificates)), cloneCount(std::move(cloneCount)) {}

fc::ISystemCertificateAdder* ListAdder::clone() const {
    if (cloneCount) ++*cloneCount;
    return new ListAdder(*this);
}

void ListAdder::addSystemCertificates(fc::TrustStoreImpl& store, fc::TrustStore::Usage,
                                      bool throwOnFailure) {
    for (const fc::ByteArray& der : certificates) {
        try {
            store.addCertificateDER(der);
        } catch (const fc::TrustStoreException&) {
            if (throwOnFailure) throw;
        }
    }
}

}  // namespace testsupport
