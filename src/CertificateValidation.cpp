#include <foundation/certificates/CertificateValidation.hpp>

#include <foundation/certificates/Exceptions.hpp>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace foundation::certificates {

namespace {

// ASCII only, whatever the program's locale.
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isAsciiAlnum(char c) { return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Why the text is not a DNS host name (RFC 1123 labels), or empty when it is one.
std::string hostNameFault(const std::string& name) {
    if (name.empty()) return "it is empty";
    if (name.size() > 253) return "it is longer than 253 characters";
    std::size_t start = 0;
    std::string lastLabel;
    while (start <= name.size()) {
        const std::size_t dot = std::min(name.find('.', start), name.size());
        const std::string label = name.substr(start, dot - start);
        if (label.empty()) return "it has an empty label";
        if (label.size() > 63) return "a label is longer than 63 characters";
        if (!std::all_of(label.begin(), label.end(),
                         [](char c) { return isAsciiAlnum(c) || c == '-'; })) {
            return "only letters, digits, hyphens and dots may appear";
        }
        if (label.front() == '-' || label.back() == '-') {
            return "a label begins or ends with a hyphen";
        }
        lastLabel = label;
        start = dot + 1;
    }
    // A numeric top label means an IPv4 address (or a fragment of one), which no dNSName holds.
    if (std::all_of(lastLabel.begin(), lastLabel.end(), isDigit)) {
        return "it is an IP address, which withIPAddress takes";
    }
    return {};
}

// RFC 5322 atext and dots, unquoted: what certificates' rfc822Name entries hold in practice.
bool isLocalPart(const std::string& local) {
    static constexpr char kSpecials[] = "!#$%&'*+-/=?^_`{|}~";
    if (local.empty() || local.size() > 64 || local.front() == '.' || local.back() == '.' ||
        local.find("..") != std::string::npos) {
        return false;
    }
    return std::all_of(local.begin(), local.end(), [](char c) {
        return isAsciiAlnum(c) || c == '.' || (c != '\0' && std::strchr(kSpecials, c) != nullptr);
    });
}

// Dotted decimal arcs as RFC 5280 writes object identifiers: at least two, the first 0, 1 or 2,
// the second below 40 under 0 and 1, no empty arc and no leading zero.
bool isDottedOID(const std::string& text) {
    std::vector<std::string> arcs;
    std::size_t start = 0;
    for (std::size_t dot; (dot = text.find('.', start)) != std::string::npos; start = dot + 1) {
        arcs.push_back(text.substr(start, dot - start));
    }
    arcs.push_back(text.substr(start));
    const auto wellFormed = [](const std::string& arc) {
        return !arc.empty() && std::all_of(arc.begin(), arc.end(), isDigit) &&
               (arc.size() == 1 || arc[0] != '0');
    };
    if (arcs.size() < 2 || !std::all_of(arcs.begin(), arcs.end(), wellFormed)) return false;
    if (arcs[0].size() != 1 || arcs[0][0] > '2') return false;
    return arcs[0][0] == '2' || arcs[1].size() == 1 || (arcs[1].size() == 2 && arcs[1] < "40");
}

}  // namespace

CertificateValidationOptions::CertificateValidationOptions(
    AllowSelfSignedCertificate allowSelfSigned, AllowExpiredCertificate allowExpired,
    AllowRevokedCertificate allowRevoked, CheckCRL checkCRL, DownloadCRL downloadCRL)
    : allowSelfSigned(allowSelfSigned),
      allowExpired(allowExpired),
      allowRevoked(allowRevoked),
      checkCRL(checkCRL),
      downloadCRL(downloadCRL) {}

CertificateValidationOptions& CertificateValidationOptions::withValidationTime(
    std::chrono::system_clock::time_point time) {
    validationTime = time;
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withHostName(std::string dnsName) {
    const std::string given = dnsName;
    // "example.com." names the same host; certificates never carry the final dot.
    if (!dnsName.empty() && dnsName.back() == '.') dnsName.pop_back();
    const std::string fault = hostNameFault(dnsName);
    if (!fault.empty()) {
        throw InvalidArgument("The host name \"" + given + "\" is not a DNS host name: " + fault +
                              ".");
    }
    hostName = std::move(dnsName);
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withIPAddress(std::string address) {
    unsigned char bytes[16] = {};
    std::size_t length = 0;
    if (inet_pton(AF_INET, address.c_str(), bytes) == 1) {
        length = 4;
    } else if (inet_pton(AF_INET6, address.c_str(), bytes) == 1) {
        length = 16;
    }
    // inet_pton stops at a NUL; an address with one inside is not the address it read.
    if (length == 0 || address.find('\0') != std::string::npos) {
        throw InvalidArgument("The IP address \"" + address +
                              "\" is neither IPv4 dotted-quad nor IPv6 text.");
    }
    ipAddress.assign(bytes, bytes + length);
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withEmailAddress(std::string address) {
    const std::size_t at = address.rfind('@');
    const bool wellFormed = at != std::string::npos && isLocalPart(address.substr(0, at)) &&
                            hostNameFault(address.substr(at + 1)).empty();
    if (!wellFormed) {
        throw InvalidArgument("The e-mail address \"" + address +
                              "\" is not of the form local-part@domain.");
    }
    emailAddress = std::move(address);
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withPurpose(
    CertificatePurpose purpose) {
    if (static_cast<std::uint32_t>(purpose) >
        static_cast<std::uint32_t>(CertificatePurpose::TimeStamping)) {
        throw InvalidArgument("Unknown certificate purpose: " +
                              std::to_string(static_cast<std::uint32_t>(purpose)) + ".");
    }
    this->purpose = purpose;
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withRevocationLists(
    std::vector<CertificateRevocationList> lists) {
    revocationLists = std::move(lists);
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withRevocationFetch(
    RevocationFetchSettings settings) {
    revocationFetch = std::move(settings);
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withProfile(ValidationProfile profile) {
    if (profile != ValidationProfile::RFC5280 && profile != ValidationProfile::WebPKI) {
        throw InvalidArgument("Unknown validation profile: " +
                              std::to_string(static_cast<std::uint32_t>(profile)) + ".");
    }
    this->profile = profile;
    return *this;
}

CertificateValidationOptions& CertificateValidationOptions::withPolicyCheck(
    CertificatePolicySettings settings) {
    for (const std::string& oid : settings.initialPolicies) {
        if (!isDottedOID(oid)) {
            throw InvalidArgument("The policy \"" + oid + "\" is not a dotted object identifier.");
        }
    }
    policies = std::move(settings);
    return *this;
}

CertificateRevocationResults::CertificateRevocationResults(RevocationStatus status,
                                                           std::string revocationDate,
                                                           std::string revokedSerialNumber)
    : status(status),
      revocationDate(std::move(revocationDate)),
      revokedSerialNumber(std::move(revokedSerialNumber)) {}

CertificateValidationResults::CertificateValidationResults(CertificateChainStatus status,
                                                           std::string validationErrorString)
    : status(status),
      validationErrorString(std::move(validationErrorString)),
      revocation(CertificateRevocationResults::RevocationStatus::NotRevoked, "", "") {}

void CertificateValidationResults::setCertificateRevocationResults(
    const CertificateRevocationResults& results) {
    revocation = results;
}

PKCS7CertificateValidationResults::PKCS7CertificateValidationResults(
    bool signatureVerificationStatus, CertificateChainStatus status,
    const std::string& validationErrorString)
    : signatureVerificationStatus(signatureVerificationStatus),
      status(status),
      validationErrorString(validationErrorString) {}

bool PKCS7CertificateValidationResults::isValidSignature() const {
    return signatureVerificationStatus && status == CertificateChainStatus::Valid;
}

}  // namespace foundation::certificates
