#include "CrlDownload.hpp"

#include "Asn1Conversions.hpp"
#include "CrlMessages.hpp"
#include "FacadeAccess.hpp"
#include "ValidationRecorder.hpp"
#include "X509CertificateImpl.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <boost/asio/ip/tcp.hpp>
#include <openssl/x509v3.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <unistd.h>

namespace foundation::certificates::detail {

namespace {

constexpr auto kExchangeDeadline = std::chrono::seconds(60);

void appendBytes(std::vector<std::string>& uris, const ASN1_STRING* value) {
    uris.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                      static_cast<std::size_t>(ASN1_STRING_length(value)));
}

// The downloaded body lives in a file of its own from just before the request until the end of
// the download, whichever way the download ends.
class TemporaryFile {
  public:
    TemporaryFile() {
        char name[] = "/tmp/certCRL_XXXXXX";
        const int descriptor = mkstemp(name);
        if (descriptor >= 0) {
            close(descriptor);
            path_ = name;
        }
    }
    ~TemporaryFile() {
        if (path_.empty()) return;
        std::error_code ignored;
        if (std::filesystem::exists(path_, ignored)) std::filesystem::remove(path_, ignored);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool created() const { return !path_.empty(); }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace

void handleDownloadError(DownloadMode mode, const std::string& message) {
    FetchRecord::noteFailure(message);
    if (mode == DownloadMode::ThrowOnError) throw X509CertificateException(message);
}

std::vector<std::string> getCertificateURI(const X509Certificate& certificate) {
    // The parsed certificate is shared and never changes, so it is read in place.
    const X509SPtr x509 = FacadeAccess::read(certificate, [](const X509CertificateImpl& i) {
        i.throwIfEmpty();
        return i.shared();
    });
    std::vector<std::string> uris;
    STACK_OF(DIST_POINT)* points = static_cast<STACK_OF(DIST_POINT)*>(
        X509_get_ext_d2i(x509.get(), NID_crl_distribution_points, nullptr, nullptr));
    if (points == nullptr) return uris;
    const std::unique_ptr<STACK_OF(DIST_POINT), void (*)(STACK_OF(DIST_POINT)*)> owner(
        points, [](STACK_OF(DIST_POINT) * p) { sk_DIST_POINT_pop_free(p, DIST_POINT_free); });

    for (int i = 0; i < sk_DIST_POINT_num(points); ++i) {
        const DIST_POINT_NAME* name = sk_DIST_POINT_value(points, i)->distpoint;
        if (name == nullptr) continue;  // only reasons or a CRL issuer: nothing to fetch
        if (name->type == 0) {
            for (int j = 0; j < sk_GENERAL_NAME_num(name->name.fullname); ++j) {
                const GENERAL_NAME* general = sk_GENERAL_NAME_value(name->name.fullname, j);
                if (general != nullptr && general->type == GEN_URI &&
                    general->d.uniformResourceIdentifier != nullptr) {
                    appendBytes(uris, general->d.uniformResourceIdentifier);
                }
            }
        } else if (name->type == 1) {
            for (int j = 0; j < sk_X509_NAME_ENTRY_num(name->name.relativename); ++j) {
                const ASN1_STRING* value =
                    X509_NAME_ENTRY_get_data(sk_X509_NAME_ENTRY_value(name->name.relativename, j));
                if (value != nullptr) appendBytes(uris, value);
            }
        }
    }
    return uris;
}

std::string readHttpResponse(std::istream& response, DownloadMode mode) {
    std::string version;
    unsigned int status = 0;
    std::string rest;
    response >> version >> status;
    std::getline(response, rest);
    if (!response || version.compare(0, 5, "HTTP/") != 0) {
        handleDownloadError(mode, crlmessage::kInvalidResponse);
        return {};
    }
    FetchRecord::noteHttpStatus(static_cast<int>(status));
    if (status != 200) {
        handleDownloadError(mode, crlmessage::kStatusCode + std::to_string(status) + "\n");
        return {};
    }
    std::string header;
    while (std::getline(response, header) && header != "\r") {
    }
    std::ostringstream body;
    if (response) body << response.rdbuf();
    return body.str();
}

std::string getCrlHttpData(const std::string& host, const std::string& path, DownloadMode mode) {
    boost::asio::ip::tcp::iostream stream;
    stream.connect(host, "http");
    if (!stream) {
        handleDownloadError(mode, crlmessage::kUnableToConnect + stream.error().message() + "\n");
        return {};
    }
    stream.expires_after(kExchangeDeadline);
    stream << "GET " << path << " HTTP/1.0\r\n"
           << "Host: " << host << "\r\n"
           << "Accept: */*\r\n"
           << "Connection: close\r\n\r\n";
    stream.flush();
    return readHttpResponse(stream, mode);
}

bool downloadCRL(const X509Certificate& certificate, StoreUPtr& store,
                 std::vector<X509CRLUPtr>& crls, DownloadMode mode, EVP_PKEYUPtr& issuerKey,
                 TimePoint now) {
    const BIOUPtr bio = makeBIOUPtr(BIO_new(BIO_s_file()));

    const std::vector<std::string> uris = getCertificateURI(certificate);
    if (uris.empty()) {
        FetchRecord::unfetchable(crlmessage::kNoDistributionPoints);
        handleDownloadError(mode, crlmessage::kNoDistributionPoints);
        return false;
    }
    static const std::regex pattern("http://(.*?)/(.*)");
    std::smatch match;
    const auto candidate = std::find_if(uris.begin(), uris.end(), [&](const std::string& uri) {
        return std::regex_match(uri, match, pattern);
    });
    if (candidate == uris.end()) {
        FetchRecord::unfetchable(crlmessage::kNoUsableDistributionPoint);
        handleDownloadError(mode, crlmessage::kNoUsableDistributionPoint);
        return false;
    }
    const std::string host = match[1].str();
    const std::string path = "/" + match[2].str();

    FetchRecord record(*candidate);
    const TemporaryFile file;
    try {
        const std::string body = getCrlHttpData(host, path, mode);
        record.bytes(body.size());
        if (body.empty()) {
            handleDownloadError(mode, crlmessage::kEmptyBody);
            return false;
        }
        // Without a file there is nothing to write to; the read-back below reports it.
        if (file.created()) {
            std::ofstream out(file.path(), std::ios::binary | std::ios::trunc);
            out.write(body.data(), static_cast<std::streamsize>(body.size()));
        }
    } catch (const std::exception& e) {
        handleDownloadError(mode, crlmessage::wrapped(e.what()));
        return false;
    }

    if (!bio || !file.created() || BIO_read_filename(bio.get(), file.path().c_str()) <= 0) {
        handleDownloadError(mode, crlmessage::kInvalidList);
        return false;
    }
    X509CRLUPtr crl = makeX509CRLUPtr(d2i_X509_CRL_bio(bio.get(), nullptr));
    if (!crl) {
        // HTML, PEM or a truncated body: no list to verify.
        handleDownloadError(mode, crlmessage::kInvalidList);
        return false;
    }
    if (X509_CRL_verify(crl.get(), issuerKey.get()) != 1) {
        handleDownloadError(mode, crlmessage::kBadSignature);
        return false;
    }
    const ASN1_TIME* nextUpdate = X509_CRL_get0_nextUpdate(crl.get());
    if (nextUpdate == nullptr) {
        handleDownloadError(mode, crlmessage::kNoNextUpdate);
        return false;
    }
    if (now >= asn1TimeToTimePoint(nextUpdate)) {
        handleDownloadError(mode, crlmessage::kExpired);
        return false;
    }
    const bool added = X509_STORE_add_crl(store.get(), crl.get()) == 1;
    crls.push_back(std::move(crl));
    if (added) {
        record.succeeded();
        if (ValidationRecorder* recorder = ValidationRecorder::current()) {
            const X509SPtr parsed = FacadeAccess::read(
                certificate, [](const X509CertificateImpl& i) { return i.shared(); });
            recorder->listFor(parsed.get(), RevocationCheck::Source::Downloaded, *candidate);
        }
    }
    return added;
}

}  // namespace foundation::certificates::detail
