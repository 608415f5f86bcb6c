#include "RevocationChecking.hpp"

#include "Asn1Conversions.hpp"
#include "CrlCacheAccess.hpp"
#include "CrlMessages.hpp"
#include "FacadeAccess.hpp"
#include "HttpFetch.hpp"
#include "OpenSSLErrors.hpp"
#include "OpenSSLPtr.hpp"
#include "RevocationListAccess.hpp"
#include "ValidationRecorder.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <openssl/err.h>

#include <algorithm>

namespace foundation::certificates::detail {

namespace {

using Mode = CertificateValidationOptions::DownloadCRL;
using Check = CertificateValidationOptions::CheckCRL;

constexpr char kNoRoot[] = "CRL Download Error: Failed to retrieve Root CA certificate\n";

std::string failedAtLevel(std::size_t level) {
    return "CRL Download Error: Certificate Revocation List (CRL) download failed at level: " +
           std::to_string(level) + "\n";
}

X509SPtr parsedCertificate(const X509Certificate& certificate) {
    return FacadeAccess::read(certificate, [](const X509CertificateImpl& i) {
        i.throwIfEmpty();
        return i.shared();
    });
}

// The trusted certificate that issued `certificate`, by name and key identifier, found in the
// store without a validation of its own.
X509UPtr trustedIssuer(X509_STORE* trusted, X509* certificate) {
    const ScopedErrorQueueMark errorQueue;
    const OpenSSLPtr<X509_STORE_CTX> context(X509_STORE_CTX_new());
    X509* issuer = nullptr;
    if (context && X509_STORE_CTX_init(context.get(), trusted, certificate, nullptr) == 1 &&
        X509_STORE_CTX_get1_issuer(&issuer, context.get(), certificate) == 1) {
        return makeX509UPtr(issuer);
    }
    return makeX509UPtr(nullptr);
}

bool issuedBy(const CertificateRevocationList& list, const X509* certificate) {
    return X509_NAME_cmp(X509_CRL_get_issuer(RevocationListAccess::shared(list)),
                         X509_get_issuer_name(certificate)) == 0;
}

bool coveredBy(const std::vector<CertificateRevocationList>& lists, const X509* certificate) {
    return std::any_of(lists.begin(), lists.end(), [&](const CertificateRevocationList& list) {
        return issuedBy(list, certificate);
    });
}

// How long to wait for another validation that downloads the same list: as long as a download
// of our own could take.
std::optional<std::chrono::steady_clock::time_point> waitLimit(
    const RevocationFetchSettings& settings) {
    if (settings.connectTimeout.count() <= 0 || settings.exchangeTimeout.count() <= 0) {
        return std::nullopt;
    }
    return std::chrono::steady_clock::now() + settings.connectTimeout + settings.exchangeTimeout;
}

std::size_t encodedSize(const CertificateRevocationList& list) {
    const int size = i2d_X509_CRL(RevocationListAccess::shared(list), nullptr);
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

void noteSource(const X509Certificate& certificate, RevocationCheck::Source source,
                std::string url) {
    if (ValidationRecorder* recorder = ValidationRecorder::current()) {
        recorder->listFor(parsedCertificate(certificate).get(), source, std::move(url));
    }
}

// One distribution point's list, downloaded under the settings and checked like every downloaded
// list; the failure's message when it is not usable.
std::string fetchChecked(const HttpLocation& location, EVP_PKEY* issuerKey,
                         const RevocationFetchSettings& settings, TimePoint now,
                         CertificateRevocationList& list) {
    CertificateRevocationList candidate;
    try {
        const FetchResult fetched = fetchHttp(
            location,
            {settings.connectTimeout, settings.exchangeTimeout, settings.maxResponseBytes});
        if (!fetched.failure.empty()) return fetched.failure;
        try {
            candidate = CertificateRevocationList(fetched.body);
        } catch (const CertificateException&) {
            return crlmessage::kInvalidList;
        }
    } catch (const std::exception& e) {
        return crlmessage::wrapped(e.what());
    }
    X509_CRL* crl = RevocationListAccess::shared(candidate);
    if (X509_CRL_verify(crl, issuerKey) != 1) {
        ERR_clear_error();
        return crlmessage::kBadSignature;
    }
    const ASN1_TIME* nextUpdate = X509_CRL_get0_nextUpdate(crl);
    if (nextUpdate == nullptr) return crlmessage::kNoNextUpdate;
    if (now >= asn1TimeToTimePoint(nextUpdate)) return crlmessage::kExpired;
    list = std::move(candidate);
    return {};
}

// The certificate's list from the cache or its distribution points, under the settings. Every
// failure goes through handleDownloadError; trying every point, the last failure is reported.
std::optional<CertificateRevocationList> fetchUnderSettings(const X509Certificate& certificate,
                                                            EVP_PKEY* issuerKey,
                                                            const RevocationFetchSettings& settings,
                                                            Mode mode, TimePoint now) {
    const std::vector<std::string> uris = getCertificateURI(certificate);
    if (uris.empty()) {
        FetchRecord::unfetchable(crlmessage::kNoDistributionPoints);
        handleDownloadError(mode, crlmessage::kNoDistributionPoints);
        return std::nullopt;
    }
    std::vector<std::pair<std::string, HttpLocation>> points;
    for (const std::string& uri : uris) {
        if (std::optional<HttpLocation> location = parseHttpUri(uri)) {
            points.emplace_back(uri, std::move(*location));
            if (!settings.tryEveryDistributionPoint) break;
        }
    }
    if (points.empty()) {
        FetchRecord::unfetchable(crlmessage::kNoUsableDistributionPoint);
        handleDownloadError(mode, crlmessage::kNoUsableDistributionPoint);
        return std::nullopt;
    }
    std::string failure;
    for (const auto& [uri, location] : points) {
        FetchRecord record(uri);
        const CrlCacheAccess::Lookup cached =
            settings.cache
                ? CrlCacheAccess::lookup(*settings.cache, uri, issuerKey, now, waitLimit(settings))
                : CrlCacheAccess::Lookup{};
        if (cached.list) {
            record.fromCache();
            record.bytes(encodedSize(*cached.list));
            record.succeeded();
            noteSource(certificate, RevocationCheck::Source::Cache, uri);
            return cached.list;
        }
        CertificateRevocationList list;
        failure = fetchChecked(location, issuerKey, settings, now, list);
        if (failure.empty()) {
            record.bytes(encodedSize(list));
            record.succeeded();
            noteSource(certificate, RevocationCheck::Source::Downloaded, uri);
            if (settings.cache) CrlCacheAccess::store(*settings.cache, uri, list, issuerKey);
            return list;
        }
        record.failed(failure);
    }
    handleDownloadError(mode, failure);
    return std::nullopt;
}

}  // namespace

bool downloadCRLs(Mode mode, Check check, std::vector<X509CRLUPtr>& crls,
                  std::vector<X509Certificate>& workingList, StoreUPtr& store,
                  const X509CertificateChain& chain, const TrustStore& trustStore, TimePoint now) {
    if (mode == Mode::No) return false;

    if (!workingList.back().isSelfSigned()) {
        // The copy at index 0 is not the certificate whose lock the validation holds, so the
        // nested validation does not wait for it.
        try {
            workingList.push_back(workingList.front().getRootCACertificate(chain, trustStore));
        } catch (const std::exception&) {
            if (mode == Mode::ThrowOnError) throw X509CertificateException(kNoRoot);
        }
    }
    if (workingList.size() == 1) return false;

    for (std::size_t level = 0; level + 1 < workingList.size(); ++level) {
        EVP_PKEYUPtr issuerKey =
            makeEVP_PKEYUPtr(X509_get_pubkey(parsedCertificate(workingList[level + 1]).get()));
        const bool obtained = downloadCRL(workingList[level], store, crls, mode, issuerKey, now);
        if (!obtained && mode == Mode::ThrowOnError) {
            // Reached when the store refuses a list that otherwise passed every check.
            throw X509CertificateException(failedAtLevel(level));
        }
        if (!obtained) return false;
        if (check == Check::LeafOnly) return true;
    }
    return true;
}

bool gatherRevocationLists(Mode mode, Check check, const RevocationSources& sources,
                           const std::vector<X509Certificate>& workingList, X509_STORE* trusted,
                           TimePoint now, std::vector<CertificateRevocationList>& lists) {
    lists = sources.supplied;
    const bool supplied = !lists.empty();
    if (ValidationRecorder* recorder = ValidationRecorder::current(); recorder && supplied) {
        for (const X509Certificate& level : workingList) {
            const X509SPtr certificate = parsedCertificate(level);
            if (coveredBy(sources.supplied, certificate.get())) {
                recorder->listFor(certificate.get(), RevocationCheck::Source::SuppliedList, "");
            }
        }
    }
    if (mode == Mode::No) return supplied;

    std::vector<X509SPtr> path;
    for (const X509Certificate& certificate : workingList) {
        path.push_back(parsedCertificate(certificate));
    }
    X509UPtr root = makeX509UPtr(nullptr);
    if (!workingList.back().isSelfSigned()) {
        root = trustedIssuer(trusted, path.back().get());
        if (!root && mode == Mode::ThrowOnError) throw X509CertificateException(kNoRoot);
    }
    const std::size_t levels = path.size() - 1 + (root ? 1 : 0);

    StoreUPtr scratch(nullptr, X509_STORE_free);  // what downloadCRL adds to; unused here
    std::vector<X509CRLUPtr> downloaded;
    for (std::size_t level = 0; level < levels; ++level) {
        X509* certificate = path[level].get();
        if (!coveredBy(sources.supplied, certificate)) {
            X509* issuer = level + 1 < path.size() ? path[level + 1].get() : root.get();
            EVP_PKEYUPtr issuerKey = makeEVP_PKEYUPtr(X509_get_pubkey(issuer));
            std::optional<CertificateRevocationList> list;
            if (sources.fetch) {
                list = fetchUnderSettings(workingList[level], issuerKey.get(), *sources.fetch, mode,
                                          now);
            } else {
                if (!scratch) scratch.reset(X509_STORE_new());
                if (downloadCRL(workingList[level], scratch, downloaded, mode, issuerKey, now)) {
                    list = RevocationListAccess::adopt(std::move(downloaded.back()));
                }
            }
            if (!list && mode == Mode::ThrowOnError) {
                throw X509CertificateException(failedAtLevel(level));
            }
            // The caller's lists keep checking on; a level without a list then fails it.
            if (!list) return supplied;
            lists.push_back(std::move(*list));
        }
        if (check == Check::LeafOnly) return true;
    }
    return true;
}

CertificateRevocationResults revocationDetailsFromLists(
    const std::vector<CertificateRevocationList>& lists,
    const std::vector<X509Certificate>& workingList) {
    for (const X509Certificate& level : workingList) {
        const X509SPtr certificate = parsedCertificate(level);
        for (const CertificateRevocationList& list : lists) {
            // By serial number and issuer: the list's own issuer, or on an indirect list the
            // entry's certificate issuer.
            X509_REVOKED* entry = nullptr;
            if (X509_CRL_get0_by_cert(RevocationListAccess::shared(list), &entry,
                                      certificate.get()) == 1 &&
                entry != nullptr) {
                return CertificateRevocationResults(
                    CertificateRevocationResults::RevocationStatus::Revoked,
                    asn1TimeToString(X509_REVOKED_get0_revocationDate(entry)),
                    asn1IntegerToDecimalString(X509_REVOKED_get0_serialNumber(entry)));
            }
        }
    }
    return CertificateRevocationResults(CertificateRevocationResults::RevocationStatus::NotRevoked,
                                        "", "");
}

CertificateRevocationResults certificateRevocationDetails(
    const std::vector<X509CRLUPtr>& crls, const std::vector<X509Certificate>& workingList) {
    for (std::size_t level = 0; level < crls.size() && level < workingList.size(); ++level) {
        const X509SPtr certificate = parsedCertificate(workingList[level]);
        const std::string serial =
            asn1IntegerToDecimalString(X509_get0_serialNumber(certificate.get()));
        STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crls[level].get());
        for (int i = 0; i < sk_X509_REVOKED_num(revoked); ++i) {
            const X509_REVOKED* entry = sk_X509_REVOKED_value(revoked, i);
            if (asn1IntegerToDecimalString(X509_REVOKED_get0_serialNumber(entry)) == serial) {
                return CertificateRevocationResults(
                    CertificateRevocationResults::RevocationStatus::Revoked,
                    asn1TimeToString(X509_REVOKED_get0_revocationDate(entry)), serial);
            }
        }
    }
    return CertificateRevocationResults(CertificateRevocationResults::RevocationStatus::NotRevoked,
                                        "", "");
}

}  // namespace foundation::certificates::detail
