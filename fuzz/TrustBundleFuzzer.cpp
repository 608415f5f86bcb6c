// Arbitrary text as the platform's trust bundle: the import with report never throws, accounts
// for every certificate block at most once, holds exactly what it reports as imported, and
// leaves the OpenSSL error queue as it found it.
#include "platform/bundle/BundleSecurityPlatform.hpp"
#include "platform/bundle/CertificateBlocks.hpp"

#include <foundation/certificates/TrustStoreImpl.hpp>

#include <openssl/err.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace fc = foundation::certificates;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto contents = std::make_shared<fc::detail::TrustSourceContents>();
    contents->sources = {"fuzz"};
    contents->files = {{0, std::string(reinterpret_cast<const char*>(data), size)}};
    const std::size_t blocks = fc::detail::findCertificateBlocks(contents->files[0].text).size();
    for (const auto usage : {fc::TrustStore::Usage::SSL, fc::TrustStore::Usage::Signing}) {
        fc::TrustStoreImpl store(fc::detail::makeContentsAdder(contents));
        const fc::TrustImportReport report = store.addSystemCertificatesWithReport(usage);
        const std::size_t found = report.imported + report.skipped.size();
        if (found > blocks || (blocks > 0 && found == 0)) std::abort();
        if (store.size() != report.imported) std::abort();
    }
    if (ERR_peek_error() != 0) std::abort();
    return 0;
}
