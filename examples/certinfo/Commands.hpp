// The subcommands of certinfo. Each lives in its own file and is listed in main.cpp.
#pragma once

#include "Arguments.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/KeyConversions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <openssl/evp.h>

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace certinfo {

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitNegative = 1;  // the command ran and its answer is "no" (e.g. not valid)
constexpr int kExitUsage = 2;
constexpr int kExitFailure = 3;  // input could not be read or the library refused it

struct Command {
    std::string name;
    std::string synopsis;
    std::string summary;
    int (*run)(const std::vector<std::string>& words, std::ostream& out);
};

int runDemo(const std::vector<std::string>& words, std::ostream& out);
int runGenerate(const std::vector<std::string>& words, std::ostream& out);
int runEncode(const std::vector<std::string>& words, std::ostream& out);
int runDecode(const std::vector<std::string>& words, std::ostream& out);
int runKey(const std::vector<std::string>& words, std::ostream& out);
int runRoots(const std::vector<std::string>& words, std::ostream& out);
int runShow(const std::vector<std::string>& words, std::ostream& out);
int runChain(const std::vector<std::string>& words, std::ostream& out);
int runPKCS7(const std::vector<std::string>& words, std::ostream& out);
int runPKCS12(const std::vector<std::string>& words, std::ostream& out);
int runVerify(const std::vector<std::string>& words, std::ostream& out);
int runCrl(const std::vector<std::string>& words, std::ostream& out);

// The library's summary of a certificate plus its serial number, dates and key.
void describeCertificate(const foundation::certificates::X509Certificate& certificate,
                         std::ostream& out);

// Prints a validation's status, error text and revocation details; true when it is Valid.
bool describeValidation(const foundation::certificates::CertificateValidationResults& results,
                        std::ostream& out);

// The enumerator's name, e.g. "InvalidChain".
const char* chainStatusName(foundation::certificates::CertificateChainStatus status);

// The certificates of a PEM bundle that the library loads, or an empty store (the system's
// certificates) without a path; says on out which it is.
foundation::certificates::TrustStore trustStoreFrom(const std::optional<std::string>& path,
                                                    std::ostream& out);

// Every certificate block of a PEM bundle that the library loads; counts the refused ones.
std::vector<foundation::certificates::X509Certificate> loadableCertificates(
    const std::string& pemText, std::size_t* refused);

// Describes a key in one paragraph: type, curve, size, or why the library refuses it.
void describeKey(const EVP_PKEY* key, std::ostream& out);

// OpenSSL's configuration name of the bit, e.g. "digitalSignature".
const char* keyUsageName(foundation::certificates::X509Certificate::KeyUsage usage);

// The certificate's subject alternative names, key usages, constraints, distribution points,
// access locations, key identifiers and public-key pin, one line each.
void describeExtensions(const foundation::certificates::X509Certificate& certificate,
                        std::ostream& out);

// "EC P-256", "Ed25519", "EC P-384", ...
const char* curveName(foundation::certificates::EllipticCurve curve);

// With the flag --extended-keys, the library accepts P-384, P-521 and Ed448 keys from here on.
void applyKeyAcceptance(const Arguments& args);

}  // namespace certinfo
