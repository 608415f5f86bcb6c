#include "support/TestTrustStores.hpp"

#include "support/TestKeys.hpp"

namespace testsupport {

foundation::certificates::X509UPtr makeQuickCertificate(
    const std::string& commonName, bool ca, std::vector<std::pair<int, std::string>> extensions,
    long notBeforeOffset, long notAfterOffset) {
    CertificateRecipe recipe;
    recipe.subject = {{"O", "Foundation Trust Test"}, {"CN", commonName}};
    recipe.key = sharedKey(KeyKind::P256);
    recipe.ca = ca;
    recipe.extensions = std::move(extensions);
    recipe.notBeforeOffset = notBeforeOffset;
    recipe.notAfterOffset = notAfterOffset;
    return makeCertificate(recipe);
}

}  // namespace testsupport
