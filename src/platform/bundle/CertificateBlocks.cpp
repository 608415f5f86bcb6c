#include "platform/bundle/CertificateBlocks.hpp"

#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"

#include <foundation/certificates/OpenSSLHandles.hpp>

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <algorithm>
#include <climits>

namespace foundation::certificates::detail {

namespace {

constexpr std::string_view kBegin = "-----BEGIN ";
constexpr std::string_view kDashes = "-----";
constexpr std::string_view kCertificateLabel = "CERTIFICATE";
constexpr std::string_view kTrustedLabel = "TRUSTED CERTIFICATE";

// A body that is not even base64 gives no bytes, which the store then rejects like any other
// damaged certificate: every block is accounted for.
ByteArray decodeBody(std::string_view body) {
    if (body.size() > INT_MAX / 2) return {};
    const OpenSSLPtr<EVP_ENCODE_CTX> context = wrap(EVP_ENCODE_CTX_new());
    if (!context) return {};
    ByteArray der(body.size() / 4 * 3 + 3);
    int written = 0;
    int finalWritten = 0;
    EVP_DecodeInit(context.get());
    if (EVP_DecodeUpdate(context.get(), der.data(), &written,
                         reinterpret_cast<const unsigned char*>(body.data()),
                         static_cast<int>(body.size())) < 0 ||
        EVP_DecodeFinal(context.get(), der.data() + written, &finalWritten) != 1) {
        return {};
    }
    der.resize(static_cast<std::size_t>(written + finalWritten));
    return der;
}

void readPurposes(const STACK_OF(ASN1_OBJECT) * objects, std::vector<int>& nids,
                  std::vector<std::string>& names) {
    for (int i = 0; i < sk_ASN1_OBJECT_num(objects); ++i) {
        const ASN1_OBJECT* object = sk_ASN1_OBJECT_value(objects, i);
        char name[128] = {};
        OBJ_obj2txt(name, sizeof name, object, 0);
        nids.push_back(OBJ_obj2nid(object));
        names.emplace_back(name);
    }
}

std::vector<int> purposesOf(TrustStore::Usage usage) {
    switch (usage) {
        case TrustStore::Usage::SSL:
            return {NID_server_auth};
        case TrustStore::Usage::Signing:
            return {NID_code_sign, NID_email_protect, NID_time_stamp};
    }
    return {};
}

bool names(const std::vector<int>& purposes, int purpose) {
    return std::find(purposes.begin(), purposes.end(), purpose) != purposes.end() ||
           std::find(purposes.begin(), purposes.end(), NID_anyExtendedKeyUsage) != purposes.end();
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

}  // namespace

namespace {

// Calls found(block) for each certificate block in text order until it returns false.
template <typename Found>
void forEachCertificateBlock(std::string_view text, Found&& found) {
    std::size_t position = 0;
    while ((position = text.find(kBegin, position)) != std::string_view::npos) {
        const std::size_t labelStart = position + kBegin.size();
        const std::size_t labelEnd = text.find(kDashes, labelStart);
        if (labelEnd == std::string_view::npos) return;
        const std::string_view label = text.substr(labelStart, labelEnd - labelStart);
        const bool trusted = label == kTrustedLabel;
        if (!trusted && label != kCertificateLabel) {
            // The dashes found may be those of the next begin line.
            position = labelStart;
            continue;
        }
        const std::string endLine = "-----END " + std::string(label) + "-----";
        const std::size_t bodyStart = labelEnd + kDashes.size();
        const std::size_t bodyEnd = text.find(endLine, bodyStart);
        if (bodyEnd == std::string_view::npos) return;
        if (!found(CertificateBlock{trusted, text.substr(bodyStart, bodyEnd - bodyStart)})) return;
        position = bodyEnd + endLine.size();
    }
}

}  // namespace

std::vector<CertificateBlock> findCertificateBlocks(std::string_view text) {
    std::vector<CertificateBlock> blocks;
    forEachCertificateBlock(text, [&blocks](const CertificateBlock& block) {
        blocks.push_back(block);
        return true;
    });
    return blocks;
}

bool holdsCertificateBlock(std::string_view text) {
    bool held = false;
    forEachCertificateBlock(text, [&held](const CertificateBlock&) {
        held = true;
        return false;
    });
    return held;
}

DecodedBlock decodeCertificateBlock(const CertificateBlock& block) {
    DecodedBlock decoded;
    decoded.der = decodeBody(block.body);
    if (!block.trusted || decoded.der.empty()) return decoded;

    const ScopedErrorQueueMark errorQueue;
    const long size = static_cast<long>(decoded.der.size());
    const unsigned char* end = decoded.der.data();
    const X509UPtr withSettings = makeX509UPtr(d2i_X509_AUX(nullptr, &end, size));
    const unsigned char* certificateEnd = decoded.der.data();
    const X509UPtr alone = makeX509UPtr(d2i_X509(nullptr, &certificateEnd, size));
    if (!withSettings || !alone || end != decoded.der.data() + decoded.der.size()) return {};
    decoded.der.resize(static_cast<std::size_t>(certificateEnd - decoded.der.data()));

    const STACK_OF(ASN1_OBJECT)* trusted = X509_get0_trust_objects(withSettings.get());
    const STACK_OF(ASN1_OBJECT)* rejected = X509_get0_reject_objects(withSettings.get());
    if (trusted == nullptr && rejected == nullptr) return decoded;
    TrustSettings& settings = decoded.settings.emplace();
    readPurposes(trusted, settings.trusted, settings.trustedNames);
    readPurposes(rejected, settings.rejected, settings.rejectedNames);
    return decoded;
}

osx::SystemTrust TrustSettings::judge(TrustStore::Usage usage) const {
    using Verdict = osx::SystemTrust::Verdict;
    bool anyRejected = false;
    for (const int purpose : purposesOf(usage)) {
        if (names(rejected, purpose)) {
            anyRejected = true;
        } else if (trusted.empty() || names(trusted, purpose)) {
            return {};
        }
    }
    if (anyRejected) {
        return {Verdict::Distrusted,
                "Rejected for " + joined(rejectedNames) + " by its bundle's trust settings"};
    }
    if (trustedNames.empty()) {
        return {Verdict::NotForUsage, "Not trusted for this usage by its bundle's trust settings"};
    }
    return {Verdict::NotForUsage,
            "Trusted only for " + joined(trustedNames) + " by its bundle's trust settings"};
}

}  // namespace foundation::certificates::detail
