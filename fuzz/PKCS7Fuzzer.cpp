// Arbitrary bytes into the PKCS#7 loader. Only the library's exceptions may come out, a load must
// leave the OpenSSL error queue empty, and a loaded object must answer every accessor without
// crashing; what it writes out must load back to an equal object.
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS7Certificate.hpp>

#include <openssl/err.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>

namespace fc = foundation::certificates;

namespace {

void exercise(const fc::PKCS7Certificate& pkcs7) {
    std::ostringstream sink;
    sink << pkcs7.getNumCertificates() << pkcs7.empty();
    for (const fc::X509Certificate& certificate : pkcs7.getCertificates()) {
        sink << certificate.getSHA256Fingerprint();
    }
    pkcs7.print(sink);

    // The signature operations may leave OpenSSL errors queued; that is theirs to do.
    sink << pkcs7.getSignerCerts().getNumCertificates() << pkcs7.getSignedData().size();
    ERR_clear_error();

    const fc::PKCS7Certificate copy(pkcs7);
    if (copy != pkcs7) std::abort();
    fc::PKCS7Certificate extended(pkcs7);
    if (!pkcs7.empty()) extended.addCertificate(pkcs7.getCertificates().front());
    if (extended.getNumCertificates() != pkcs7.getNumCertificates() + (pkcs7.empty() ? 0 : 1)) {
        std::abort();
    }

    const fc::ByteArray written = pkcs7.getAsBytes();
    if (pkcs7.getAsString() != std::string(written.begin(), written.end())) std::abort();
    if (copy.getAsBytes() != written) std::abort();
    if (extended.getAsBytes() != written) std::abort();  // the list grew, the structure did not
    if (!written.empty() && fc::PKCS7Certificate(written) != pkcs7) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fc::ByteArray bytes(data, data + size);
    try {
        const fc::PKCS7Certificate pkcs7(bytes);
        if (ERR_peek_error() != 0) std::abort();
        exercise(pkcs7);
    } catch (const fc::CertificateException&) {
    }
    if (ERR_peek_error() != 0) std::abort();

    std::istringstream stream(std::string(bytes.begin(), bytes.end()));
    try {
        const fc::PKCS7Certificate fromStream(stream);
    } catch (const fc::CertificateException&) {
    }
    if (ERR_peek_error() != 0) std::abort();
    return 0;
}
