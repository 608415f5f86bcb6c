// Writes starting inputs for the fuzz targets, made at run time by the test helper:
//   seed_corpus DIR   creates DIR/<target>/<name> files.
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestKeys.hpp"
#include "support/TestPKCS12.hpp"
#include "support/TestPKCS7.hpp"
#include "support/TestTrustBundle.hpp"

#include <openssl/objects.h>

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

// The PKCS#12 target's framing: passphrase length, passphrase, container.
std::string pkcs12Input(const testsupport::PKCS12Recipe& recipe) {
    const foundation::certificates::ByteArray der = testsupport::makePKCS12(recipe);
    return std::string(1, static_cast<char>(recipe.passphrase.size())) + recipe.passphrase +
           std::string(der.begin(), der.end());
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
    testsupport::CertificateRecipe ed25519;
    ed25519.key = testsupport::sharedKey(testsupport::KeyKind::Ed25519);
    write(certificates, "ed25519.der",
          testsupport::toDER(testsupport::makeCertificate(ed25519).get()));

    // A leaf and its issuer, split where the first byte says (16 bytes per unit).
    const fs::path profile = root / "fuzz_webpki_profile";
    for (const auto* pki : {&rsa, &ec}) {
        foundation::certificates::ByteArray path = testsupport::toDER(pki->leaf.get());
        const std::size_t padded = (path.size() + 15) / 16 * 16;
        path.resize(padded, 0);
        const foundation::certificates::ByteArray issuer =
            testsupport::toDER(pki->intermediate.get());
        path.insert(path.end(), issuer.begin(), issuer.end());
        path.insert(path.begin(), static_cast<unsigned char>(padded / 16));
        write(profile, pki == &rsa ? "rsa-path.der" : "ec-path.der", path);
    }

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
    testsupport::SignatureRecipe attached;
    attached.signer = &testsupport::chainedSigner();
    attached.extraCertificates = {rsa.intermediate.get()};
    const std::string content = "signed content\n";
    write(pkcs7, "attached-signature.der",
          testsupport::pkcs7ToDER(
              testsupport::makeSignature(
                  attached, foundation::certificates::ByteArray(content.begin(), content.end()))
                  .get()));

    using testsupport::KeyKind;
    using testsupport::PKCS12Recipe;
    const fs::path pkcs12 = root / "fuzz_pkcs12";
    PKCS12Recipe full;
    full.key = rsa.leafKey.get();
    full.certificate = rsa.leaf.get();
    full.caChain = {rsa.intermediate.get(), rsa.root.get()};
    write(pkcs12, "rsa-chain", pkcs12Input(full));
    PKCS12Recipe legacy = full;
    legacy.algorithms = testsupport::PKCS12Algorithms::Legacy;
    write(pkcs12, "rsa-legacy", pkcs12Input(legacy));
    PKCS12Recipe p256;
    p256.key = testsupport::sharedKey(KeyKind::P256);
    const auto p256Certificate = testsupport::selfSignedFor(p256.key);
    p256.certificate = p256Certificate.get();
    p256.passphrase = "";
    write(pkcs12, "p256-empty-passphrase", pkcs12Input(p256));
    PKCS12Recipe ed25519Key;
    ed25519Key.key = testsupport::sharedKey(KeyKind::Ed25519);
    write(pkcs12, "ed25519-key-only", pkcs12Input(ed25519Key));
    PKCS12Recipe certificatesOnly;
    certificatesOnly.certificate = p256.certificate;
    certificatesOnly.caChain = {rsa.root.get()};
    write(pkcs12, "certificates-only", pkcs12Input(certificatesOnly));

    const fs::path lists = root / "fuzz_revocation_list";
    testsupport::CRLRecipe entries{rsa.intermediate.get(),
                                   rsa.intermediateKey.get(),
                                   {{"1002", 1700000000, 1}, {"51", 1600000000}}};
    write(lists, "entries.der", testsupport::crlToDER(testsupport::makeCRL(entries).get()));
    testsupport::CRLRecipe open;
    open.issuer = ec.root.get();
    open.signingKey = ec.rootKey.get();
    open.nextUpdateOffset = std::nullopt;
    write(lists, "no-next-update.pem", testsupport::crlToPEM(testsupport::makeCRL(open).get()));

    // The HTTP target's framing: body limit / 16, piece size, response.
    const fs::path responses = root / "fuzz_http_response";
    write(responses, "chunked",
          std::string("\x10\x03") +
              "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n");
    write(responses, "content-length",
          std::string("\x00\x05") + "HTTP/1.0 200 OK\r\nContent-Length: 4\r\n\r\nbody");
    write(responses, "redirect",
          std::string("\x01\x00") + "HTTP/1.1 302 Found\r\nLocation: http://x/y\r\n\r\n");

    const fs::path encodings = root / "fuzz_encodings";
    write(encodings, "base64", std::string("TWFuIGlzIGRpc3Rpbmd1aXNoZWQ="));
    write(encodings, "hex", std::string("00abFF10"));

    const fs::path bundles = root / "fuzz_trust_bundle";
    write(bundles, "roots.pem",
          "# roots\n" + testsupport::toPEM(rsa.root.get()) + testsupport::toPEM(ec.root.get()));
    write(bundles, "trusted.pem",
          testsupport::trustedPEM(rsa.root.get(), {NID_email_protect}, {NID_server_auth}) +
              testsupport::pemBlock({0x30, 0x03, 0x02, 0x01, 0x01}));

    const fs::path names = root / "fuzz_validation_options";
    write(names, "host", std::string("www.example.com."));
    write(names, "ipv6", std::string("2001:db8::192.0.2.1"));
    write(names, "email", std::string("first.last+tag@example.com"));
    return 0;
}
