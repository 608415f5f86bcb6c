// The X.509 v3 extensions of a certificate, decoded into plain values.
#include "Asn1Conversions.hpp"
#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>

#include <climits>
#include <cstdint>

namespace foundation::certificates {

namespace {

[[noreturn]] void throwUndecodable(int nid) {
    throw X509CertificateException(std::string("Error: The certificate's ") + OBJ_nid2sn(nid) +
                                   " extension cannot be decoded.");
}

// The decoded extension, or null when the certificate has none. OpenSSL answers null for a
// missing, an undecodable and a repeated extension alike; `critical` tells them apart. Whatever
// OpenSSL queues while decoding stays inside.
template <typename T>
detail::OpenSSLPtr<T> decoded(const X509* certificate, int nid) {
    const detail::ScopedErrorQueueMark discardOnly;
    int critical = -1;
    auto* extension = static_cast<T*>(X509_get_ext_d2i(certificate, nid, &critical, nullptr));
    if (extension == nullptr && critical == -2) {
        throw X509CertificateException(std::string("Error: The certificate has more than one ") +
                                       OBJ_nid2sn(nid) + " extension.");
    }
    if (extension == nullptr && critical != -1) throwUndecodable(nid);
    return detail::OpenSSLPtr<T>(extension);
}

std::string text(const ASN1_STRING* string) {
    return std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
                       static_cast<std::size_t>(ASN1_STRING_length(string)));
}

ByteArray bytes(const ASN1_STRING* string) {
    if (string == nullptr) return {};
    const unsigned char* data = ASN1_STRING_get0_data(string);
    return ByteArray(data, data + ASN1_STRING_length(string));
}

// 4 or 16 bytes in network order as inet_ntop writes them; another length is no address.
std::string addressText(const ASN1_OCTET_STRING* address) {
    const int length = ASN1_STRING_length(address);
    const int family = length == 4 ? AF_INET : length == 16 ? AF_INET6 : AF_UNSPEC;
    char buffer[INET6_ADDRSTRLEN] = {};
    if (family == AF_UNSPEC ||
        inet_ntop(family, ASN1_STRING_get0_data(address), buffer, sizeof buffer) == nullptr) {
        throwUndecodable(NID_subject_alt_name);
    }
    return buffer;
}

std::vector<std::string> accessLocations(const X509* certificate, int method) {
    const auto access = decoded<AUTHORITY_INFO_ACCESS>(certificate, NID_info_access);
    std::vector<std::string> uris;
    for (int i = 0; access && i < sk_ACCESS_DESCRIPTION_num(access.get()); ++i) {
        const ACCESS_DESCRIPTION* description = sk_ACCESS_DESCRIPTION_value(access.get(), i);
        if (OBJ_obj2nid(description->method) == method && description->location->type == GEN_URI) {
            uris.push_back(text(description->location->d.uniformResourceIdentifier));
        }
    }
    return uris;
}

}  // namespace

X509Certificate::SubjectAlternativeNames X509CertificateImpl::getSubjectAlternativeNames() const {
    throwIfEmpty();
    X509Certificate::SubjectAlternativeNames names;
    const auto entries = decoded<GENERAL_NAMES>(certificate.get(), NID_subject_alt_name);
    for (int i = 0; entries && i < sk_GENERAL_NAME_num(entries.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(entries.get(), i);
        switch (name->type) {
            case GEN_DNS:
                names.dnsNames.push_back(text(name->d.dNSName));
                break;
            case GEN_IPADD:
                names.ipAddresses.push_back(addressText(name->d.iPAddress));
                break;
            case GEN_EMAIL:
                names.emailAddresses.push_back(text(name->d.rfc822Name));
                break;
            case GEN_URI:
                names.uris.push_back(text(name->d.uniformResourceIdentifier));
                break;
            default:
                break;
        }
    }
    return names;
}

std::vector<std::string> X509CertificateImpl::getCRLDistributionPoints() const {
    throwIfEmpty();
    const auto points = decoded<CRL_DIST_POINTS>(certificate.get(), NID_crl_distribution_points);
    std::vector<std::string> uris;
    for (int i = 0; points && i < sk_DIST_POINT_num(points.get()); ++i) {
        const DIST_POINT_NAME* point = sk_DIST_POINT_value(points.get(), i)->distpoint;
        if (point == nullptr || point->type != 0) continue;  // no full name
        for (int j = 0; j < sk_GENERAL_NAME_num(point->name.fullname); ++j) {
            const GENERAL_NAME* name = sk_GENERAL_NAME_value(point->name.fullname, j);
            if (name->type == GEN_URI) uris.push_back(text(name->d.uniformResourceIdentifier));
        }
    }
    return uris;
}

std::vector<std::string> X509CertificateImpl::getOCSPResponders() const {
    throwIfEmpty();
    return accessLocations(certificate.get(), NID_ad_OCSP);
}

std::vector<std::string> X509CertificateImpl::getCAIssuers() const {
    throwIfEmpty();
    return accessLocations(certificate.get(), NID_ad_ca_issuers);
}

std::vector<X509Certificate::KeyUsage> X509CertificateImpl::getKeyUsage() const {
    throwIfEmpty();
    const auto usage = decoded<ASN1_STRING>(certificate.get(), NID_key_usage);
    std::vector<X509Certificate::KeyUsage> set;
    for (int bit = 0; usage && bit <= static_cast<int>(X509Certificate::KeyUsage::DecipherOnly);
         ++bit) {
        if (ASN1_BIT_STRING_get_bit(usage.get(), bit) != 0) {
            set.push_back(static_cast<X509Certificate::KeyUsage>(bit));
        }
    }
    return set;
}

std::vector<std::string> X509CertificateImpl::getExtendedKeyUsage() const {
    throwIfEmpty();
    const auto purposes = decoded<EXTENDED_KEY_USAGE>(certificate.get(), NID_ext_key_usage);
    std::vector<std::string> names;
    for (int i = 0; purposes && i < sk_ASN1_OBJECT_num(purposes.get()); ++i) {
        const ASN1_OBJECT* purpose = sk_ASN1_OBJECT_value(purposes.get(), i);
        const int nid = OBJ_obj2nid(purpose);
        if (nid != NID_undef) {
            names.emplace_back(OBJ_nid2sn(nid));
            continue;
        }
        names.push_back(detail::dottedOID(purpose));
    }
    return names;
}

std::vector<std::string> X509CertificateImpl::getCertificatePolicies() const {
    throwIfEmpty();
    const auto policies = decoded<CERTIFICATEPOLICIES>(certificate.get(), NID_certificate_policies);
    std::vector<std::string> oids;
    for (int i = 0; policies && i < sk_POLICYINFO_num(policies.get()); ++i) {
        oids.push_back(detail::dottedOID(sk_POLICYINFO_value(policies.get(), i)->policyid));
    }
    return oids;
}

std::optional<long> X509CertificateImpl::getPathLengthConstraint() const {
    throwIfEmpty();
    const auto constraints = decoded<BASIC_CONSTRAINTS>(certificate.get(), NID_basic_constraints);
    if (!constraints || constraints->pathlen == nullptr) return std::nullopt;
    std::int64_t length = -1;
    if (ASN1_INTEGER_get_int64(&length, constraints->pathlen) != 1 || length < 0 ||
        length > LONG_MAX) {
        throwUndecodable(NID_basic_constraints);
    }
    return static_cast<long>(length);
}

ByteArray X509CertificateImpl::getSubjectKeyIdentifier() const {
    throwIfEmpty();
    return bytes(decoded<ASN1_STRING>(certificate.get(), NID_subject_key_identifier).get());
}

ByteArray X509CertificateImpl::getAuthorityKeyIdentifier() const {
    throwIfEmpty();
    const auto identifier =
        decoded<AUTHORITY_KEYID>(certificate.get(), NID_authority_key_identifier);
    return identifier ? bytes(identifier->keyid) : ByteArray();
}

ByteArray X509CertificateImpl::getSubjectPublicKeyInfo() const {
    throwIfEmpty();
    unsigned char* raw = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate.get()), &raw);
    const detail::OpenSSLMemory<unsigned char> der(raw);
    if (length <= 0) {
        throw X509CertificateException(
            "Internal error: Could not serialize the subject public key info.");
    }
    return ByteArray(der.get(), der.get() + length);
}

std::string X509CertificateImpl::getSubjectPublicKeyInfoSHA256() const {
    const ByteArray der = getSubjectPublicKeyInfo();
    ByteArray digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    if (EVP_Digest(der.data(), der.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
        throw X509CertificateException(
            "Internal error: Unable to compute the SHA256 digest of the subject public key info.");
    }
    digest.resize(length);
    return hexEncode(digest);
}

}  // namespace foundation::certificates
