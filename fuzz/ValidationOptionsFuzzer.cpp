// Arbitrary text into the options' name and address setters: they accept it or throw
// InvalidArgument, nothing else.
#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/Exceptions.hpp>

#include <cstdint>
#include <string>

namespace fc = foundation::certificates;
using Options = fc::CertificateValidationOptions;

namespace {

template <typename Setter>
void trySetter(const std::string& text, Setter set) {
    Options options(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                    Options::AllowRevokedCertificate::No, Options::CheckCRL::None,
                    Options::DownloadCRL::No);
    try {
        set(options, text);
    } catch (const fc::InvalidArgument&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    trySetter(text, [](Options& o, const std::string& t) { o.withHostName(t); });
    trySetter(text, [](Options& o, const std::string& t) { o.withIPAddress(t); });
    trySetter(text, [](Options& o, const std::string& t) { o.withEmailAddress(t); });
    return 0;
}
