// Arbitrary text into the chain loader: only the library's exceptions may come out, the OpenSSL
// error queue must be empty afterwards, and a loaded chain must write itself out as text that
// loads back to an equal chain.
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <openssl/err.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>

namespace fc = foundation::certificates;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        fc::X509CertificateChain chain(text);
        if (ERR_peek_error() != 0) std::abort();
        std::ostringstream printed;
        chain.print(printed);
        if (fc::X509CertificateChain(chain.getAsString()) != chain) std::abort();
        try {
            chain.popLeafCertificate();
        } catch (const fc::X509CertificateChainException&) {
        }
    } catch (const fc::CertificateException&) {
    }
    if (ERR_peek_error() != 0) std::abort();
    return 0;
}
