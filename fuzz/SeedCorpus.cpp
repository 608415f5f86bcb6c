// Writes starting inputs for the fuzz targets, made at run time by the test helper:
//   seed_corpus DIR   creates DIR/<target>/<name> files.
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"
#include "support/TestPKCS7.hpp"

#include <filesystem>
#include <fstream>
#include <iostream>

namespace {

namespace fs = std::filesystem;

void write(const fs::path& directory, const std::string& name, const std::string& bytes) {
    fs::create_directories(directory);
    std::ofstream(directory / name, std::ios::binary) << bytes;
}

void write(const fs::path& directory, const std::string& name,
           const foundation::certificates::ByteArray& bytes) {
    write(directory, name, std::string(bytes.begin(), bytes.end()));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: seed_corpus DIR\n";
        return 2;
    }
    const fs::path root(argv[1]);
    const auto& rsa = testsupport::rsaPKI();
    const auto& ec = testsupport::ecPKI();

    const fs::path certificates = root / "fuzz_certificate";
    write(certificates, "rsa-leaf.der", testsupport::toDER(rsa.leaf.get()));
    write(certificates, "rsa-root.pem", testsupport::toPEM(rsa.root.get()));
    write(certificates, "ec-leaf.pem", testsupport::toPEM(ec.leaf.get()));
    testsupport::CertificateSpec ed25519;
    ed25519.key = testsupport::sharedKey(testsupport::KeyKind::Ed25519);
    write(certificates, "ed25519.der",
          testsupport::toDER(testsupport::makeCertificate(ed25519).get()));

    const fs::path chains = root / "fuzz_chain";
    write(chains, "rsa-chain.pem",
          testsupport::toPEM(rsa.leaf.get()) + testsupport::toPEM(rsa.intermediate.get()) +
              testsupport::toPEM(rsa.root.get()));
    write(chains, "ec-with-text.pem", "bundle\n" + testsupport::toPEM(ec.root.get()) + "end\n");

    const fs::path pkcs7 = root / "fuzz_pkcs7";
    write(pkcs7, "bundle.pem",
          testsupport::pkcs7ToPEM(testsupport::makeCertificateBundle(
                                      {rsa.leaf.get(), rsa.intermediate.get(), rsa.root.get()})
                                      .get()));
    testsupport::SignatureSpec attached;
    attached.signer = &testsupport::chainedSigner();
    attached.extraCertificates = {rsa.intermediate.get()};
    const std::string content = "signed content\n";
    write(pkcs7, "attached-signature.der",
          testsupport::pkcs7ToDER(
              testsupport::makeSignature(
                  attached, foundation::certificates::ByteArray(content.begin(), content.end()))
                  .get()));

    const fs::path encodings = root / "fuzz_encodings";
    write(encodings, "base64", std::string("TWFuIGlzIGRpc3Rpbmd1aXNoZWQ="));
    write(encodings, "hex", std::string("00abFF10"));
    return 0;
}
