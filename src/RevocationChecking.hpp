// Revocation checking across a chain: which lists a validation needs, fetched level by level,
// and the revoked entry behind an OpenSSL "certificate revoked" verdict.
#pragma once

#include "CrlDownload.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <optional>
#include <vector>

namespace foundation::certificates {

class TrustStore;
class X509CertificateChain;

namespace detail {

// Fetches the lists the check needs into `store`, level by level: the list of the certificate at
// index i is verified with the key of the certificate at i + 1, so the working list must be in
// issuing order. Appends the trusted root first when the list does not end in a self-signed
// certificate. True only when every needed list was obtained: one missing list switches
// revocation checking off for the whole validation. Lists are judged as of `now`.
bool downloadCRLs(CertificateValidationOptions::DownloadCRL mode,
                  CertificateValidationOptions::CheckCRL check, std::vector<X509CRLUPtr>& crls,
                  std::vector<X509Certificate>& workingList, StoreUPtr& store,
                  const X509CertificateChain& chain, const TrustStore& trustStore, TimePoint now);

// Where a validation with the caller's own lists or with fetch settings takes its lists from.
struct RevocationSources {
    const std::vector<CertificateRevocationList>& supplied;
    const std::optional<RevocationFetchSettings>& fetch;
};

// Collects into `lists` what the check needs: the caller's lists, and for every level not
// covered by them (matched by issuer name) the list from the cache or a download, as
// downloadCRLs would fetch it but under the fetch settings when there are any. The root that
// verifies the top level's list is looked up in `trusted`. True when revocation checking can be
// switched on: always with lists of the caller's, otherwise when every needed list was obtained.
bool gatherRevocationLists(CertificateValidationOptions::DownloadCRL mode,
                           CertificateValidationOptions::CheckCRL check,
                           const RevocationSources& sources,
                           const std::vector<X509Certificate>& workingList, X509_STORE* trusted,
                           TimePoint now, std::vector<CertificateRevocationList>& lists);

// The revoked entry of the lowest level whose certificate one of the lists (by issuer name)
// revokes; NotRevoked when there is none.
CertificateRevocationResults revocationDetailsFromLists(
    const std::vector<CertificateRevocationList>& lists,
    const std::vector<X509Certificate>& workingList);

// The first revoked entry, lowest level first, whose serial number is that of the certificate at
// the same level; NotRevoked when there is none.
CertificateRevocationResults certificateRevocationDetails(
    const std::vector<X509CRLUPtr>& crls, const std::vector<X509Certificate>& workingList);

}  // namespace detail
}  // namespace foundation::certificates
