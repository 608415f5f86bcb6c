#include "Commands.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/SelfSignedCertBuilder.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace certinfo {

namespace fc = foundation::certificates;
using KeyUsage = fc::X509Certificate::KeyUsage;

namespace {

const std::pair<const char*, KeyUsage> kKeyUsages[] = {
    {"digitalSignature", KeyUsage::DigitalSignature},
    {"nonRepudiation", KeyUsage::NonRepudiation},
    {"keyEncipherment", KeyUsage::KeyEncipherment},
    {"dataEncipherment", KeyUsage::DataEncipherment},
    {"keyAgreement", KeyUsage::KeyAgreement},
    {"keyCertSign", KeyUsage::KeyCertSign},
    {"cRLSign", KeyUsage::CRLSign},
    {"encipherOnly", KeyUsage::EncipherOnly},
    {"decipherOnly", KeyUsage::DecipherOnly},
};

}  // namespace

const char* keyUsageName(KeyUsage usage) {
    // The table is in bit order.
    return kKeyUsages[static_cast<std::size_t>(usage)].first;
}

namespace {

// Every value of a repeatable option, each split at commas.
std::set<std::string> listOption(const Arguments& args, const std::string& name) {
    std::set<std::string> items;
    for (const std::string& value : args.values(name)) {
        std::size_t start = 0;
        while (start <= value.size()) {
            const std::size_t comma = std::min(value.find(',', start), value.size());
            if (comma > start) items.insert(value.substr(start, comma - start));
            start = comma + 1;
        }
    }
    return items;
}

KeyUsage keyUsageNamed(const std::string& name) {
    for (const auto& [usageName, usage] : kKeyUsages) {
        if (name == usageName) return usage;
    }
    std::string known;
    for (const auto& entry : kKeyUsages)
        known += std::string(known.empty() ? "" : ", ") + entry.first;
    throw UsageError("unknown key usage '" + name + "' (known: " + known + ")");
}

fc::RSAPrivateKeySize keySizeNamed(const std::string& bits) {
    if (bits == "2048") return fc::RSAPrivateKeySize::RSA2048;
    if (bits == "3072") return fc::RSAPrivateKeySize::RSA3072;
    if (bits == "4096") return fc::RSAPrivateKeySize::RSA4096;
    throw UsageError("--key-size must be 2048, 3072 or 4096");
}

std::optional<std::string> passphraseOption(const Arguments& args) {
    const std::optional<std::string> given = args.value("passphrase");
    const std::optional<std::string> variable = args.value("passphrase-env");
    if (given && variable) throw UsageError("give --passphrase or --passphrase-env, not both");
    if (!variable) return given;
    const char* value = std::getenv(variable->c_str());
    if (value == nullptr) throw UsageError("environment variable " + *variable + " is not set");
    return std::string(value);
}

// A file this command creates. Opening never follows or reuses an existing file, so the mode
// given is the file's mode from its first moment. Unless kept, the file is removed again.
class CreatedFile {
  public:
    CreatedFile(std::string path, mode_t mode, bool replace) : path_(std::move(path)) {
        if (replace && ::unlink(path_.c_str()) != 0 && errno != ENOENT) fail("cannot replace");
        fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd_ < 0) {
            if (errno == EEXIST) {
                throw std::runtime_error(path_ + " exists; pass --force to replace it");
            }
            fail("cannot create");
        }
    }
    CreatedFile(const CreatedFile&) = delete;
    CreatedFile& operator=(const CreatedFile&) = delete;

    ~CreatedFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!kept_) ::unlink(path_.c_str());
    }

    void write(const void* data, std::size_t size) {
        const char* next = static_cast<const char*>(data);
        while (size > 0) {
            const ssize_t written = ::write(fd_, next, size);
            if (written < 0 && errno == EINTR) continue;
            if (written < 0) fail("cannot write");
            next += written;
            size -= static_cast<std::size_t>(written);
        }
    }

    void keep() {
        const int fd = std::exchange(fd_, -1);
        if (::close(fd) != 0) fail("cannot write");
        kept_ = true;
    }

  private:
    [[noreturn]] void fail(const char* what) const {
        throw std::runtime_error(std::string(what) + " " + path_ + ": " + std::strerror(errno));
    }

    std::string path_;
    int fd_ = -1;
    bool kept_ = false;
};

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

}  // namespace

int runGenerate(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words,
                         {"cn", "san", "days", "offset-days", "serial", "key-size", "key-usage",
                          "ext-key-usage", "passphrase", "passphrase-env", "cert-out", "key-out"},
                         {"pkcs12", "force"});
    args.expectPositionalCount(0, 0);
    const std::optional<std::string> certPath = args.value("cert-out");
    const std::optional<std::string> keyPath = args.value("key-out");
    if (!certPath || !keyPath) throw UsageError("--cert-out and --key-out are required");
    if (*certPath == *keyPath) throw UsageError("--cert-out and --key-out must differ");
    const bool force = args.flag("force");
    const bool pkcs12 = args.flag("pkcs12");

    fc::SelfSignedCertBuilder builder;
    if (const auto name = args.value("cn")) builder.withCommonName(*name);
    const std::set<std::string> altNames = listOption(args, "san");
    if (!altNames.empty()) builder.withAdditionalSubjectAltNames(altNames);
    if (const auto days = args.number<unsigned int>("days")) {
        try {
            builder.withValidityPeriod(*days);
        } catch (const fc::X509CertificateException& e) {
            throw UsageError(e.what());
        }
    }
    if (const auto offset = args.number<int>("offset-days")) {
        builder.withValidityPeriodOffset(*offset);
    }
    if (const auto serial = args.number<unsigned long long>("serial")) {
        builder.withSerialNumber(*serial);
    }
    if (const auto bits = args.value("key-size")) builder.withPrivateKeySize(keySizeNamed(*bits));
    std::set<KeyUsage> keyUsages;
    for (const std::string& name : listOption(args, "key-usage")) {
        keyUsages.insert(keyUsageNamed(name));
    }
    if (!keyUsages.empty()) builder.withAdditionalKeyUsage(keyUsages);
    const std::set<std::string> extendedUsages = listOption(args, "ext-key-usage");
    if (!extendedUsages.empty()) builder.withAdditionalExtendedKeyUsage(extendedUsages);
    const std::optional<std::string> passphrase = passphraseOption(args);
    if (passphrase) builder.withPrivateKeyPassphrase(*passphrase);

    // Refuse before the slow key generation; creating the files checks again.
    for (const std::string* path : {&*certPath, &*keyPath}) {
        if (!force && exists(*path)) {
            throw std::runtime_error(*path + " exists; pass --force to replace it");
        }
    }

    std::optional<fc::X509Certificate> certificate;
    std::string key;
    if (pkcs12) {
        auto [built, bytes] = builder.buildAndGetKeyBytesInPKCS12();
        if (bytes.empty()) throw std::runtime_error("the key could not be packed into PKCS#12");
        certificate.emplace(std::move(built));
        key.assign(bytes.begin(), bytes.end());
    } else {
        auto [built, pem] = builder.build();
        certificate.emplace(std::move(built));
        key = std::move(pem);
    }
    const std::string certificatePEM = certificate->getAsPEMString();

    CreatedFile certificateFile(*certPath, 0644, force);
    CreatedFile keyFile(*keyPath, 0600, force);
    certificateFile.write(certificatePEM.data(), certificatePEM.size());
    keyFile.write(key.data(), key.size());
    certificateFile.keep();
    keyFile.keep();

    const std::string commonName = args.value("cn").value_or("localhost");
    describeCertificate(*certificate, out);
    out << "Subject alt names:   " << builder.makeSubjectAlternativeName(commonName) << '\n'
        << "Key usage:           " << builder.makeKeyUsage() << '\n'
        << "Extended key usage:  " << builder.makeExtendedKeyUsage() << "\n\n"
        << "Wrote certificate " << *certPath << " (PEM, " << certificatePEM.size() << " bytes)\n"
        << "Wrote private key " << *keyPath << " ("
        << (pkcs12 ? "PKCS#12 under friendly name \"" + commonName + "\", " : "PEM, ")
        << (passphrase ? (pkcs12 ? "passphrase-protected, " : "triple-DES encrypted, ")
                       : (pkcs12 ? "no passphrase, " : "unencrypted, "))
        << key.size() << " bytes, readable by its owner only)\n";
    return kExitOk;
}

}  // namespace certinfo
