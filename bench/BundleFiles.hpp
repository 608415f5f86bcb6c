// Reading trust bundles, shared by the benchmark programs.
#pragma once

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace bench {

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("bench set-up: cannot read " + path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The certificates whose keys X509Certificate loads: RSA of at least 1024 bits, P-256, Ed25519.
inline bool libraryAcceptsKey(const X509* certificate) {
    const EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (key == nullptr) return false;
    switch (EVP_PKEY_get_base_id(key)) {
        case EVP_PKEY_RSA:
            return EVP_PKEY_get_bits(key) >= 1024;
        case EVP_PKEY_ED25519:
            return true;
        case EVP_PKEY_EC: {
            char group[64] = {};
            std::size_t length = 0;
            return EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group,
                                                  sizeof group, &length) == 1 &&
                   std::strcmp(group, "prime256v1") == 0;
        }
        default:
            return false;
    }
}

}  // namespace bench
