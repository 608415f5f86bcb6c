#include "Commands.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/PKCS12Certificate.hpp>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

// Ten times what current tools write, and about ten seconds of work: a file asking for more is
// far likelier an attempt to stall us than a real key store.
constexpr std::uint64_t kDefaultMaximumIterations = 10'000'000;

// The passphrase is never printed, not even in error messages.
std::string passphraseFrom(const Arguments& args) {
    const std::optional<std::string> given = args.value("passphrase");
    const std::optional<std::string> variable = args.value("passphrase-env");
    if (given && variable) throw UsageError("give --passphrase or --passphrase-env, not both");
    if (given) return *given;
    if (variable) {
        const char* value = std::getenv(variable->c_str());
        if (value == nullptr) throw UsageError("environment variable " + *variable + " is not set");
        return value;
    }
    return {};  // containers protected by the empty passphrase
}

void describePrivateKey(const std::optional<fc::PrivateKeyInfo>& key, bool showSecrets,
                        std::ostream& out) {
    out << "Private key:         ";
    if (!key) {
        out << "none\n";
        return;
    }
    if (key->getType() == fc::KeyType::RSA) {
        out << "RSA\n";
        if (showSecrets) {
            out << "Private exponent:    " << fc::hexEncode(key->getRSAPrivateExponent()) << '\n';
        }
    } else {
        out << curveName(key->getECCCurve()) << '\n';
        if (showSecrets) {
            out << "Private integer:     " << fc::hexEncode(key->getECCPrivateInteger()) << '\n';
        }
    }
    if (!showSecrets) out << "(secret key material hidden; --show-secrets prints it)\n";
}

}  // namespace

int runPKCS12(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {"passphrase", "passphrase-env", "max-iterations"},
                         {"show-secrets", "extended-keys"});
    args.expectPositionalCount(1, 1);
    applyKeyAcceptance(args);
    const std::string& path = args.positional(0, "PKCS#12 file");
    const std::string passphrase = passphraseFrom(args);
    fc::setMaximumPKCS12Iterations(
        args.number<std::uint64_t>("max-iterations").value_or(kDefaultMaximumIterations));
    const std::string data = readInput(path);

    std::optional<fc::PKCS12Certificate> container;
    try {
        container.emplace(fc::ByteArray(data.begin(), data.end()), passphrase);
    } catch (const fc::IncorrectPassphrase&) {
        std::cerr << "certinfo pkcs12: the passphrase does not open " << path
                  << " (or the file has no integrity check)\n";
        return kExitNegative;
    }

    const fc::X509Certificate certificate = container->getCertificate();
    out << "Certificate of the key:\n";
    if (certificate.empty()) {
        out << "  none\n";
    } else {
        describeCertificate(certificate, out);
    }

    const std::vector<fc::X509Certificate> chain = container->getCAChain().getCertificates();
    out << '\n'
        << chain.size() << (chain.size() == 1 ? " further certificate" : " further certificates")
        << '\n';
    for (std::size_t i = 0; i < chain.size(); ++i) {
        out << "\n[" << i << "] ";
        describeCertificate(chain[i], out);
    }

    out << '\n';
    describePrivateKey(container->getPrivateKeyInfo(), args.flag("show-secrets"), out);
    return kExitOk;
}

}  // namespace certinfo
