#include "Commands.hpp"

#include <foundation/certificates/X509CertificateChain.hpp>

#include <ostream>

namespace certinfo {

namespace fc = foundation::certificates;

int runChain(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {}, {"pem"});
    args.expectPositionalCount(1, 1);
    const fc::X509CertificateChain chain(readInput(args.positional(0, "chain file")));
    if (args.flag("pem")) {
        out << chain.getAsString();
        return kExitOk;
    }
    const std::vector<fc::X509Certificate> certificates = chain.getCertificates();
    out << certificates.size() << (certificates.size() == 1 ? " certificate" : " certificates")
        << " in the chain\n\n";
    for (std::size_t i = 0; i < certificates.size(); ++i) {
        out << "[" << i << "] ";
        describeCertificate(certificates[i], out);
        out << '\n';
    }
    return kExitOk;
}

}  // namespace certinfo
