#include "Commands.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

#include <openssl/x509.h>

#include <cstdlib>
#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

void demoEncodings(std::ostream& out) {
    const std::string text = "foundation::certificates";
    const fc::ByteArray bytes(text.begin(), text.end());
    out << "Encodings of \"" << text << "\":\n"
        << "  base64: " << fc::base64Encode(bytes) << '\n'
        << "  hex:    " << fc::hexEncode(bytes) << '\n'
        << "  back:   " <<
        [&] {
            const fc::ByteArray decoded = fc::base64Decode(fc::base64Encode(bytes));
            return std::string(decoded.begin(), decoded.end());
        }()
        << "\n\n";
}

void demoKeys(std::ostream& out) {
    struct Sample {
        const char* label;
        fc::EVP_PKEYUPtr key;
    };
    Sample samples[] = {
        {"RSA 2048",
         fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048}))},
        {"EC P-256", fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "prime256v1"))},
        {"EC P-384", fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "secp384r1"))},
        {"Ed25519", fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"))},
        {"Ed448", fc::makeEVP_PKEYUPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"))},
    };
    out << "Key classification (freshly generated keys):\n";
    for (const Sample& sample : samples) {
        out << sample.label << ":\n";
        describeKey(sample.key.get(), out);
    }
    out << '\n';
}

// The trust bundle OpenSSL uses on this machine.
std::string systemBundlePath() {
    if (const char* fromEnvironment = std::getenv(X509_get_default_cert_file_env())) {
        return fromEnvironment;
    }
    return X509_get_default_cert_file();
}

void demoCertificate(std::ostream& out) {
    const std::string path = systemBundlePath();
    std::string bundle;
    try {
        bundle = readInput(path);
    } catch (const std::exception&) {
        out << "No system trust bundle at " << path << "; skipping the certificate demo.\n\n";
        return;
    }
    out << "The first certificate of the system trust bundle (" << path << "):\n";
    try {
        describeCertificate(fc::X509Certificate(bundle), out);
    } catch (const std::exception& e) {
        out << "  not loaded: " << e.what() << '\n';
    }
    out << '\n';
}

}  // namespace

int runDemo(const std::vector<std::string>& words, std::ostream& out) {
    Arguments(words, {}, {}).expectPositionalCount(0, 0);
    out << "certinfo: a tour of foundation::certificates\n\n";
    demoEncodings(out);
    demoKeys(out);
    demoCertificate(out);
    out << "Run 'certinfo --help' for the commands.\n";
    return kExitOk;
}

}  // namespace certinfo
