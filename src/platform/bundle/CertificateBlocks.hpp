// The certificate blocks of PEM text: "CERTIFICATE", and OpenSSL's "TRUSTED CERTIFICATE", which
// carries the purposes the certificate is trusted and rejected for after its DER.
#pragma once

#include "platform/macos/SecurityPlatform.hpp"

#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/Types.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::certificates::detail {

struct CertificateBlock {
    bool trusted = false;   // a TRUSTED CERTIFICATE block
    std::string_view body;  // between the begin and end lines, undecoded
};

// Every complete certificate block, in text order; other blocks and text are passed over, and
// an unfinished block ends the search.
std::vector<CertificateBlock> findCertificateBlocks(std::string_view text);

// Whether findCertificateBlocks would find any, without looking further than the first.
bool holdsCertificateBlock(std::string_view text);

// The purposes, as object identifiers, that a TRUSTED CERTIFICATE block trusts and rejects.
struct TrustSettings {
    std::vector<int> trusted;  // NIDs; NID_undef for identifiers OpenSSL does not know
    std::vector<int> rejected;
    std::vector<std::string> trustedNames;
    std::vector<std::string> rejectedNames;

    // A purpose of the usage is trusted when nothing rejects it and the trust list, if any,
    // names it; the usage is trusted when one of its purposes is. Otherwise the certificate is
    // distrusted when a purpose of the usage is rejected, and not meant for the usage if not.
    osx::SystemTrust judge(TrustStore::Usage usage) const;
};

struct DecodedBlock {
    ByteArray der;  // the certificate alone; empty when the block is damaged
    std::optional<TrustSettings> settings;  // only when the block sets trust or reject purposes
};

// A TRUSTED CERTIFICATE whose settings cannot be read comes back damaged as a whole: its
// certificate must not be trusted without the restrictions that came with it.
DecodedBlock decodeCertificateBlock(const CertificateBlock& block);

}  // namespace foundation::certificates::detail
