// Arbitrary bytes into the revocation list constructors. Only the library's exceptions may come
// out, the OpenSSL error queue must be empty afterwards, and a loaded list must answer every
// accessor and load back from what it writes out.
#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <openssl/err.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <sstream>

namespace fc = foundation::certificates;

namespace {

void tolerate(const std::function<void()>& accessor) {
    try {
        accessor();
    } catch (const fc::CertificateException&) {
    }
}

void exercise(const fc::CertificateRevocationList& list) {
    std::ostringstream sink;
    tolerate([&] { sink << list.getIssuerName(); });
    tolerate([&] { sink << list.getLastUpdate() << list.getNextUpdate().value_or(""); });
    tolerate([&] { sink << list.getLastUpdateTimePoint().time_since_epoch().count(); });
    tolerate([&] { sink << list.getNextUpdateTimePoint().has_value(); });
    tolerate([&] {
        for (const auto& entry : list.getRevokedCertificates()) {
            sink << entry.serialNumber << entry.revocationDate << entry.reason.value_or(-1);
        }
    });
    tolerate([&] { sink << list.getSHA256Fingerprint(); });
    tolerate([&] { sink << list; });
    if (fc::CertificateRevocationList(list.getAsBytes()) != list) std::abort();
    if (fc::CertificateRevocationList(list.getAsPEMString()) != list) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fc::ByteArray bytes(data, data + size);
    try {
        exercise(fc::CertificateRevocationList(bytes));
    } catch (const fc::CertificateException&) {
    }
    if (ERR_peek_error() != 0) std::abort();

    std::istringstream stream(std::string(bytes.begin(), bytes.end()));
    try {
        const fc::CertificateRevocationList fromStream(stream);
    } catch (const fc::CertificateException&) {
    }
    if (ERR_peek_error() != 0) std::abort();
    return 0;
}
