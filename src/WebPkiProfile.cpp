// The rules browsers apply to TLS server chains beyond what OpenSSL checks. Each rule looks at
// one certificate of an accepted path at a time; the path is walked leaf to anchor so that the
// violation reported is the one nearest the leaf.
#include "WebPkiProfile.hpp"

#include "OpenSSLPtr.hpp"

#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

namespace foundation::certificates::detail {

namespace {

OpenSSLPtr<GENERAL_NAMES> subjectAltNames(X509* certificate) {
    return wrap(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
}

// Validation time is on the hot path: decoding the leaf's names once and comparing broken-down
// times keeps the profile's cost small beside the verification itself.
struct PathView {
    const std::vector<X509*>& chain;
    const ProfileFacts& facts;
    std::tm at;
    bool atKnown;
    OpenSSLPtr<GENERAL_NAMES> leafNames = chain.empty() ? nullptr : subjectAltNames(chain[0]);

    PathView(const std::vector<X509*>& chain, const ProfileFacts& facts)
        : chain(chain), facts(facts), at(), atKnown(OPENSSL_gmtime(&facts.time, &at) != nullptr) {}

    int anchorDepth() const { return static_cast<int>(chain.size()) - 1; }
};

// -1, 0 or 1 as the time is before, at or after the validation time; -2 when unreadable.
int compareToValidationTime(const ASN1_TIME* time, const PathView& path) {
    std::tm t{};
    if (!path.atKnown || ASN1_TIME_to_tm(time, &t) != 1) return -2;
    const int a[] = {t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
    const int b[] = {path.at.tm_year, path.at.tm_mon, path.at.tm_mday,
                     path.at.tm_hour, path.at.tm_min, path.at.tm_sec};
    for (std::size_t i = 0; i < 6; ++i) {
        if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    }
    return 0;
}

// Empty when the certificate keeps the rule, else why not.
using RuleCheck = std::string (*)(const PathView&, int depth);

std::string_view bytesOf(const ASN1_STRING* s) {
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(s)),
            static_cast<std::size_t>(ASN1_STRING_length(s))};
}

bool isAlnum(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return lower(x) == lower(y); });
}

bool endsWithIgnoringCase(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() &&
           equalsIgnoringCase(s.substr(s.size() - suffix.size()), suffix);
}

// RFC 1034 preferred-name syntax as RFC 1123 relaxed it (a label may start with a digit).
bool isPreferredName(std::string_view name, bool wildcardAllowed) {
    if (wildcardAllowed && name.size() > 2 && name.substr(0, 2) == "*.") name.remove_prefix(2);
    if (name.empty() || name.size() > 253) return false;
    std::size_t start = 0;
    while (true) {
        const std::size_t dot = std::min(name.find('.', start), name.size());
        const std::string_view label = name.substr(start, dot - start);
        if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-' ||
            !std::all_of(label.begin(), label.end(),
                         [](char c) { return isAlnum(c) || c == '-'; })) {
            return false;
        }
        if (dot == name.size()) return true;
        start = dot + 1;
    }
}

bool isMailbox(std::string_view address) {
    const std::size_t at = address.find('@');
    return at != std::string_view::npos && at > 0 &&
           address.find('@', at + 1) == std::string_view::npos &&
           isPreferredName(address.substr(at + 1), false);
}

// IPv4 dotted decimal; IPv6 as RFC 5952 writes it: lower case, no leading zeros, the longest
// run of two or more zero groups (the first of equal runs) as "::".
std::string canonicalAddress(std::string_view bytes) {
    char buffer[64];
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    if (bytes.size() == 4) {
        std::snprintf(buffer, sizeof buffer, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
        return buffer;
    }
    if (bytes.size() != 16) return {};
    unsigned groups[8];
    for (int i = 0; i < 8; ++i) groups[i] = (b[2 * i] << 8) | b[2 * i + 1];
    int bestStart = -1, bestLength = 0;
    for (int i = 0; i < 8;) {
        int j = i;
        while (j < 8 && groups[j] == 0) ++j;
        if (j - i > bestLength) {
            bestStart = i;
            bestLength = j - i;
        }
        i = j == i ? i + 1 : j;
    }
    if (bestLength < 2) bestStart = -1;
    std::string text;
    for (int i = 0; i < 8; ++i) {
        if (i == bestStart) {
            text += "::";
            i += bestLength - 1;
            continue;
        }
        if (!text.empty() && text.back() != ':') text += ':';
        std::snprintf(buffer, sizeof buffer, "%x", groups[i]);
        text += buffer;
    }
    return text;
}

bool hasExtension(X509* certificate, int nid) {
    return X509_get_ext_by_NID(certificate, nid, -1) >= 0;
}

bool isCriticalExtension(X509* certificate, int nid) {
    const int index = X509_get_ext_by_NID(certificate, nid, -1);
    return index >= 0 && X509_EXTENSION_get_critical(X509_get_ext(certificate, index)) != 0;
}

std::string keyRule(const PathView& path, int depth) {
    EVP_PKEY* key = X509_get0_pubkey(path.chain[depth]);
    if (key == nullptr) return "the public key cannot be read";
    switch (EVP_PKEY_get_base_id(key)) {
        case EVP_PKEY_RSA:
        case EVP_PKEY_RSA_PSS: {
            const int bits = EVP_PKEY_get_bits(key);
            if (bits < 2048 || bits % 8 != 0) {
                return "the RSA modulus has " + std::to_string(bits) +
                       " bits; at least 2048 and a multiple of 8 are required";
            }
            return {};
        }
        case EVP_PKEY_EC: {
            // The named curve's identifier straight from the certificate: asking the key's
            // provider for its group name costs more than the rest of the rules together.
            const void* parameter = nullptr;
            int parameterType = 0;
            X509_ALGOR* algorithm = nullptr;
            X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &algorithm,
                                   X509_get_X509_PUBKEY(path.chain[depth]));
            if (algorithm != nullptr)
                X509_ALGOR_get0(nullptr, &parameterType, &parameter, algorithm);
            if (parameterType != V_ASN1_OBJECT) return "the elliptic curve cannot be read";
            const int curve = OBJ_obj2nid(static_cast<const ASN1_OBJECT*>(parameter));
            if (curve == NID_X9_62_prime256v1 || curve == NID_secp384r1 || curve == NID_secp521r1) {
                return {};
            }
            const char* name = OBJ_nid2sn(curve);
            return std::string("the elliptic curve ") + (name != nullptr ? name : "?") +
                   " is not P-256, P-384 or P-521";
        }
        case EVP_PKEY_DSA:
            return "DSA keys are not allowed";
        default:
            return "only RSA and elliptic-curve keys are allowed";
    }
}

std::string leafRule(const PathView& path, int depth) {
    if (depth != 0) return {};
    X509* leaf = path.chain[0];
    if (!hasExtension(leaf, NID_ext_key_usage)) return "the leaf has no extendedKeyUsage";
    if (isCriticalExtension(leaf, NID_ext_key_usage)) {
        return "the leaf's extendedKeyUsage is critical";
    }
    const uint32_t usages = X509_get_extended_key_usage(leaf);
    if ((usages & XKU_ANYEKU) != 0) return "the leaf's extendedKeyUsage holds anyExtendedKeyUsage";
    if ((usages & XKU_SSL_SERVER) == 0) return "the leaf's extendedKeyUsage lacks serverAuth";
    const uint32_t flags = X509_get_extension_flags(leaf);
    if ((flags & EXFLAG_BCONS) != 0 && (flags & EXFLAG_CA) != 0) return "the leaf is a CA";
    if (!hasExtension(leaf, NID_subject_alt_name)) return "the leaf has no subjectAltName";
    if (isCriticalExtension(leaf, NID_subject_alt_name) &&
        X509_NAME_entry_count(X509_get_subject_name(leaf)) > 0) {
        return "the leaf's subjectAltName is critical although its subject is not empty";
    }
    if (hasExtension(leaf, NID_name_constraints)) return "the leaf carries name constraints";
    return {};
}

std::string commonNameRule(const PathView& path, int depth) {
    if (depth != 0) return {};
    X509_NAME* subject = X509_get_subject_name(path.chain[0]);
    int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (index < 0) return {};
    const OpenSSLPtr<GENERAL_NAMES>& names = path.leafNames;
    for (; index >= 0; index = X509_NAME_get_index_by_NID(subject, NID_commonName, index)) {
        const std::string_view commonName =
            bytesOf(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
        bool listed = false;
        for (int i = 0; names && !listed && i < sk_GENERAL_NAME_num(names.get()); ++i) {
            const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
            if (name->type == GEN_DNS) {
                listed = bytesOf(name->d.dNSName) == commonName;
            } else if (name->type == GEN_IPADD) {
                listed = canonicalAddress(bytesOf(name->d.iPAddress)) == commonName;
            }
        }
        if (!listed) return "the subject common name is not among the subjectAltName entries";
    }
    return {};
}

std::string nameSyntaxRule(const PathView& path, int depth) {
    if (depth != 0) return {};
    const OpenSSLPtr<GENERAL_NAMES>& names = path.leafNames;
    if (!names) return "the leaf's subjectAltName cannot be decoded";
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type == GEN_DNS && !isPreferredName(bytesOf(name->d.dNSName), true)) {
            return "a subjectAltName dNSName is not in preferred-name syntax";
        }
        if (name->type == GEN_EMAIL && !isMailbox(bytesOf(name->d.rfc822Name))) {
            return "a subjectAltName rfc822Name is not a mailbox at a valid domain";
        }
        if (name->type == GEN_IPADD && ASN1_STRING_length(name->d.iPAddress) != 4 &&
            ASN1_STRING_length(name->d.iPAddress) != 16) {
            return "a subjectAltName iPAddress is neither 4 nor 16 bytes";
        }
    }
    return {};
}

// "*.zone" matches one label in front of zone; an excluded "base" covers base and every name
// under it.
bool wildcardReachesInto(std::string_view zone, std::string_view base) {
    if (equalsIgnoringCase(zone, base) || endsWithIgnoringCase(zone, std::string(".") += base)) {
        return true;
    }
    const std::size_t dot = base.find('.');
    return dot != std::string_view::npos && dot > 0 &&
           equalsIgnoringCase(base.substr(dot + 1), zone);
}

std::string nameConstraintsRule(const PathView& path, int depth) {
    if (depth == 0 || !hasExtension(path.chain[depth], NID_name_constraints)) return {};
    const OpenSSLPtr<NAME_CONSTRAINTS> constraints = wrap(static_cast<NAME_CONSTRAINTS*>(
        X509_get_ext_d2i(path.chain[depth], NID_name_constraints, nullptr, nullptr)));
    if (!constraints) return "the name constraints cannot be decoded";
    if (sk_GENERAL_SUBTREE_num(constraints->permittedSubtrees) <= 0 &&
        sk_GENERAL_SUBTREE_num(constraints->excludedSubtrees) <= 0) {
        return "the name constraints hold no subtree";
    }
    for (STACK_OF(GENERAL_SUBTREE) * subtrees :
         {constraints->permittedSubtrees, constraints->excludedSubtrees}) {
        for (int i = 0; i < sk_GENERAL_SUBTREE_num(subtrees); ++i) {
            const GENERAL_NAME* base = sk_GENERAL_SUBTREE_value(subtrees, i)->base;
            if (base->type == GEN_DNS && !isPreferredName(bytesOf(base->d.dNSName), false)) {
                return "a dNSName constraint is not in preferred-name syntax";
            }
        }
    }
    if (sk_GENERAL_SUBTREE_num(constraints->excludedSubtrees) <= 0) return {};
    const OpenSSLPtr<GENERAL_NAMES>& names = path.leafNames;
    for (int n = 0; names && n < sk_GENERAL_NAME_num(names.get()); ++n) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), n);
        if (name->type != GEN_DNS) continue;
        const std::string_view dnsName = bytesOf(name->d.dNSName);
        if (dnsName.substr(0, 2) != "*.") continue;
        for (int i = 0; i < sk_GENERAL_SUBTREE_num(constraints->excludedSubtrees); ++i) {
            const GENERAL_NAME* base =
                sk_GENERAL_SUBTREE_value(constraints->excludedSubtrees, i)->base;
            if (base->type == GEN_DNS &&
                wildcardReachesInto(dnsName.substr(2), bytesOf(base->d.dNSName))) {
                return "the leaf's wildcard name can match a name in an excluded subtree";
            }
        }
    }
    return {};
}

std::string serialRule(const PathView& path, int depth) {
    const ASN1_INTEGER* serial = X509_get0_serialNumber(path.chain[depth]);
    const std::string_view magnitude = bytesOf(serial);
    const bool zero =
        std::all_of(magnitude.begin(), magnitude.end(), [](char c) { return c == 0; });
    if (ASN1_STRING_type(serial) == V_ASN1_NEG_INTEGER || zero) {
        return "the serial number is not positive";
    }
    // The DER content needs a leading zero octet when the top bit is set.
    const std::size_t octets =
        magnitude.size() + ((static_cast<unsigned char>(magnitude.front()) & 0x80) != 0 ? 1 : 0);
    if (octets > 20) return "the serial number is longer than 20 octets";
    return {};
}

std::string keyIdentifierRule(const PathView& path, int depth) {
    X509* certificate = path.chain[depth];
    if (depth != path.anchorDepth()) {
        if (X509_get0_authority_key_id(certificate) == nullptr) {
            return "the authority key identifier is missing or has no keyIdentifier";
        }
        return {};
    }
    if (hasExtension(certificate, NID_ext_key_usage)) {
        return "the trust anchor carries extendedKeyUsage";
    }
    if (!hasExtension(certificate, NID_authority_key_identifier)) return {};
    const OpenSSLPtr<AUTHORITY_KEYID> identifier = wrap(static_cast<AUTHORITY_KEYID*>(
        X509_get_ext_d2i(certificate, NID_authority_key_identifier, nullptr, nullptr)));
    if (!identifier || identifier->keyid == nullptr || identifier->issuer != nullptr ||
        identifier->serial != nullptr) {
        return "the trust anchor's authority key identifier holds more than a keyIdentifier";
    }
    return {};
}

bool isUri(std::string_view uri) {
    const std::size_t colon = uri.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 == uri.size()) return false;
    const std::string_view scheme = uri.substr(0, colon);
    return isAlnum(scheme.front()) && !(scheme.front() >= '0' && scheme.front() <= '9') &&
           std::all_of(scheme.begin(), scheme.end(),
                       [](char c) { return isAlnum(c) || c == '+' || c == '-' || c == '.'; });
}

std::string accessRule(const PathView& path, int depth) {
    X509* certificate = path.chain[depth];
    if (!hasExtension(certificate, NID_info_access)) return {};
    const OpenSSLPtr<AUTHORITY_INFO_ACCESS> access = wrap(static_cast<AUTHORITY_INFO_ACCESS*>(
        X509_get_ext_d2i(certificate, NID_info_access, nullptr, nullptr)));
    for (int i = 0; access && i < sk_ACCESS_DESCRIPTION_num(access.get()); ++i) {
        const GENERAL_NAME* location = sk_ACCESS_DESCRIPTION_value(access.get(), i)->location;
        if (location->type == GEN_URI && isUri(bytesOf(location->d.uniformResourceIdentifier))) {
            return {};
        }
    }
    return "the authorityInfoAccess holds no well-formed access description";
}

std::string policyConstraintsRule(const PathView& path, int depth) {
    X509* certificate = path.chain[depth];
    if (hasExtension(certificate, NID_policy_constraints) &&
        !isCriticalExtension(certificate, NID_policy_constraints)) {
        return "the policyConstraints extension is not critical";
    }
    return {};
}

// Both ends inclusive, which OpenSSL's notAfter comparison is not; the verify callback lets
// the last second through and this rule keeps everything past it out, forgiven or not.
std::string validityRule(const PathView& path, int depth) {
    if (!path.facts.expiryForgivable) return {};  // OpenSSL has seen to it
    X509* certificate = path.chain[depth];
    const int fromStart = compareToValidationTime(X509_get0_notBefore(certificate), path);
    const int toEnd = compareToValidationTime(X509_get0_notAfter(certificate), path);
    if (fromStart == -2 || toEnd == -2) return "the validity period cannot be read";
    if (fromStart > 0) return "the certificate is not yet valid";
    if (toEnd < 0) return "the certificate has expired";
    return {};
}

std::string revocationListRule(const PathView& path, int depth) {
    if (depth > path.facts.revocationCheckedDepth) return {};
    X509_NAME* issuer = X509_get_issuer_name(path.chain[depth]);
    for (X509_CRL* list : path.facts.revocationLists) {
        if (X509_NAME_cmp(X509_CRL_get_issuer(list), issuer) == 0 &&
            X509_CRL_get_ext_by_NID(list, NID_crl_number, -1) < 0) {
            return "a revocation list for this certificate has no CRL number";
        }
    }
    return {};
}

struct Rule {
    int number;
    const char* name;
    RuleCheck check;
};

// The README lists these with their sources; keep the two in step.
constexpr Rule kRules[] = {
    {1, "key algorithm and size", keyRule},          {2, "leaf extensions", leafRule},
    {3, "subject common name", commonNameRule},      {4, "subjectAltName syntax", nameSyntaxRule},
    {5, "name constraints", nameConstraintsRule},    {6, "serial number", serialRule},
    {7, "key identifiers", keyIdentifierRule},       {8, "authorityInfoAccess", accessRule},
    {9, "policyConstraints", policyConstraintsRule}, {10, "validity period", validityRule},
    {11, "CRL number", revocationListRule},
};

}  // namespace

std::optional<ProfileViolation> checkWebPkiProfile(const std::vector<X509*>& chain,
                                                   const ProfileFacts& facts) {
    const PathView path{chain, facts};
    for (int depth = 0; depth < static_cast<int>(chain.size()); ++depth) {
        for (const Rule& rule : kRules) {
            std::string why = rule.check(path, depth);
            if (why.empty()) continue;
            return ProfileViolation{rule.number, depth,
                                    "Web PKI rule " + std::to_string(rule.number) + " (" +
                                        rule.name + ") broken at depth " + std::to_string(depth) +
                                        ": " + why + ".\n"};
        }
    }
    return std::nullopt;
}

bool expiresExactlyAt(const X509* certificate, std::time_t time) {
    return ASN1_TIME_cmp_time_t(X509_get0_notAfter(certificate), time) == 0;
}

}  // namespace foundation::certificates::detail
