// certinfo: inspect certificates, chains, trust stores and containers with
// foundation::certificates.
//
// Run without arguments for a short demonstration of what the library does.
#include "Commands.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <iostream>

namespace {

const std::vector<certinfo::Command>& commands() {
    static const std::vector<certinfo::Command> list = {
        {"demo", "demo", "show what the library does, on built-in inputs", certinfo::runDemo},
        {"encode", "encode base64|hex [FILE|-]", "encode a file's bytes as text",
         certinfo::runEncode},
        {"decode", "decode base64|hex [FILE|-]", "decode text back into bytes (to stdout)",
         certinfo::runDecode},
        {"show", "show FILE [--extended-keys]",
         "print a certificate (PEM or DER) with its key, dates, names and extensions",
         certinfo::runShow},
        {"verify",
         "verify CERT [--chain FILE] [--trust FILE] [--allow-self-signed] [--allow-expired]\n"
         "           [--allow-revoked] [--crl none|leaf|chain] [--crl LIST-FILE]...\n"
         "           [--download no|ignore-errors|throw] [--connect-timeout MS]\n"
         "           [--exchange-timeout MS] [--max-crl-bytes N] [--every-cdp]\n"
         "           [--host NAME] [--ip ADDRESS] [--email ADDRESS] [--at ISO-8601-TIME]\n"
         "           [--purpose any|tls-server|tls-client|code-signing|email-protection|\n"
         "           time-stamping] [--profile rfc5280|webpki] [--extended-keys] [--repeat N]\n"
         "           [--signature-cache ENTRIES] [--policy OID]... [--require-explicit-policy]\n"
         "           [--inhibit-policy-mapping] [--inhibit-any-policy] [--explain]",
         "validate a certificate against a chain and trusted certificates (default: the\n"
         "      system's), optionally checking revocation lists fetched over HTTP or given as\n"
         "      files (then offline, leaf only, unless --crl chain / --download say otherwise),\n"
         "      the leaf's names, the chain's purpose and the time to judge it at; the\n"
         "      timeouts, size limit and --every-cdp switch to bounded downloads;\n"
         "      --profile webpki (with --host or --ip) adds the web PKI rules and names the\n"
         "      rule and depth that failed;\n"
         "      --extended-keys accepts P-384, P-521 and Ed448 keys too; --repeat validates N\n"
         "      times and prints the time each took and the signature cache's counts, whose\n"
         "      room --signature-cache sets (0: off); the --policy options and the three policy\n"
         "      switches check certificate policies and print the chain's valid policies\n"
         "      (--policy may repeat; none given: any policy); --explain adds the path\n"
         "      certificate by certificate with every error (forgiven or not), how each\n"
         "      revocation was checked and every list fetch; exit 0 when valid, 1 when not",
         certinfo::runVerify},
        {"crl", "crl FILE [--issuer CERT]",
         "print a revocation list (PEM or DER) and its entries; with --issuer, whether that\n"
         "      certificate's key signed it (exit 1 when not)",
         certinfo::runCrl},
        {"chain", "chain FILE [--pem]",
         "print every certificate of a PEM chain file (or write the chain back as PEM)",
         certinfo::runChain},
        {"pkcs7", "pkcs7 FILE [--pem | --verify [--content FILE] [--chain FILE] [--trust FILE]]",
         "list the certificates and signers of a PKCS#7 file, PEM or DER (or write it back as\n"
         "      PEM); with --verify, check its signature over the attached or the --content\n"
         "      data and the signer's path to --trust (a PEM bundle; default: the system's\n"
         "      roots), with --chain's PEM certificates as intermediates, which are trusted too",
         certinfo::runPKCS7},
        {"key", "key FILE [--extended-keys]", "classify a PEM public or private key",
         certinfo::runKey},
        {"generate",
         "generate --cert-out FILE --key-out FILE [--cn NAME] [--san ENTRY[,ENTRY]]...\n"
         "           [--days 1-397] [--offset-days N] [--serial N] [--key-size 2048|3072|4096]\n"
         "           [--key-usage NAME[,NAME]]... [--ext-key-usage NAME[,NAME]]...\n"
         "           [--passphrase TEXT | --passphrase-env VARIABLE] [--pkcs12] [--force]",
         "make an RSA key and a self-signed certificate for it; the key (PEM, or PKCS#12\n"
         "      with --pkcs12) is created readable by its owner only",
         certinfo::runGenerate},
        {"roots", "roots [ssl|signing] [--count] [--extended-keys]",
         "list the system's trusted roots for a usage, and every root skipped and why;\n"
         "      --extended-keys accepts P-384, P-521 and Ed448 roots too",
         certinfo::runRoots},
        {"pkcs12",
         "pkcs12 FILE [--passphrase TEXT | --passphrase-env NAME] [--show-secrets]\n"
         "           [--max-iterations N] [--extended-keys]",
         "open a DER PKCS#12 file: certificate, chain, key type (secrets with --show-secrets);\n"
         "      refuses a file asking for more than N key-derivation iterations (default\n"
         "      10000000; 0 for no limit)",
         certinfo::runPKCS12},
    };
    return list;
}

void printHelp(std::ostream& out) {
    out << "usage: certinfo [COMMAND [ARGUMENTS]]\n\n"
           "Without a command, certinfo runs its demonstration.\n\nCommands:\n";
    for (const auto& command : commands()) {
        out << "  " << command.synopsis << "\n      " << command.summary << '\n';
    }
    out << "\nExit codes: 0 success, 1 negative answer (e.g. not valid), 2 usage error,\n"
           "3 input refused or unreadable.\n";
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.empty()) return certinfo::runDemo({}, std::cout);
    if (words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
        printHelp(std::cout);
        return certinfo::kExitOk;
    }
    for (const auto& command : commands()) {
        if (command.name != words[0]) continue;
        const std::vector<std::string> rest(words.begin() + 1, words.end());
        try {
            return command.run(rest, std::cout);
        } catch (const certinfo::UsageError& e) {
            std::cerr << "certinfo " << command.name << ": " << e.what() << "\nusage: certinfo "
                      << command.synopsis << '\n';
            return certinfo::kExitUsage;
        } catch (const std::exception& e) {
            std::cerr << "certinfo " << command.name << ": " << e.what() << '\n';
            return certinfo::kExitFailure;
        }
    }
    std::cerr << "certinfo: unknown command '" << words[0] << "'\n\n";
    printHelp(std::cerr);
    return certinfo::kExitUsage;
}
