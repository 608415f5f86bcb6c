// Fetching revocation lists from real servers on loopback addresses.
#include "CrlDownload.hpp"
#include "support/Expectations.hpp"
#include "support/TemporaryFileProbe.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestHttpServers.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

namespace fc = foundation::certificates;
namespace detail = fc::detail;
using Mode = fc::CertificateValidationOptions::DownloadCRL;
using testsupport::ScriptedHttpServer;

namespace {

constexpr char kScriptedAddress[] = "127.0.0.22";
constexpr char kSilentAddress[] = "127.0.0.24";  // nothing listens here

const std::string kWrap =
    "CRL Download Error: Unable to get Certificate Revocation List HTTP data. ";
const std::string kInvalidList = "CRL Download Error: Invalid Certificate Revocation List\n";
const std::string kInvalidResponse = kWrap + "CRL Download Error: Invalid response\n\n";

const std::string kNotFound =
    kWrap + "CRL Download Error: Response returned with status code: 404\n\n";

class CrlDownloadTest : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(testsupport::leftoverCrlFiles(), std::vector<std::string>{});
    }

    // A leaf issued by the test intermediate, with the given distribution points.
    fc::X509Certificate leafWith(const std::string& distributionPoints) const {
        testsupport::CertificateRecipe recipe;
        recipe.key = pki.leafKey.get();
        recipe.issuer = pki.intermediate.get();
        recipe.issuerKey = pki.intermediateKey.get();
        recipe.serialHex = "51";
        if (!distributionPoints.empty()) {
            recipe.extensions = {{NID_crl_distribution_points, distributionPoints}};
        }
        return fc::X509Certificate(testsupport::toDER(testsupport::makeCertificate(recipe).get()));
    }

    fc::ByteArray crlDER(EVP_PKEY* signer, std::optional<long> nextUpdate = 7L * 86400) const {
        testsupport::CRLRecipe recipe{pki.intermediate.get(), signer, {{"51", 1700000000}}};
        recipe.nextUpdateOffset = nextUpdate;
        return testsupport::crlToDER(testsupport::makeCRL(recipe).get());
    }

    static std::string served(const fc::ByteArray& body) {
        return "HTTP/1.0 200 OK\r\n\r\n" + std::string(body.begin(), body.end());
    }

    bool download(const fc::X509Certificate& certificate, Mode mode) {
        fc::EVP_PKEYUPtr issuerKey = fc::makeEVP_PKEYUPtr(X509_get_pubkey(pki.intermediate.get()));
        const auto now = std::chrono::time_point_cast<std::chrono::microseconds>(
            std::chrono::system_clock::now());
        return detail::downloadCRL(certificate, store, crls, mode, issuerKey, now);
    }

    // ThrowOnError throws the message, IgnoreErrors returns false; nothing reaches the store.
    void expectFailure(const std::string& distributionPoints, const std::string& message) {
        SCOPED_TRACE(distributionPoints);
        const fc::X509Certificate certificate = leafWith(distributionPoints);
        EXPECT_THROW_MSG(download(certificate, Mode::ThrowOnError), fc::X509CertificateException,
                         message);
        EXPECT_FALSE(download(certificate, Mode::IgnoreErrors));
        EXPECT_TRUE(crls.empty());
        EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store.get())), 0);
    }

    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    detail::StoreUPtr store{X509_STORE_new(), X509_STORE_free};
    std::vector<fc::X509CRLUPtr> crls;
};

TEST_F(CrlDownloadTest, NoUsableDistributionPoint) {
    expectFailure("",
                  "CRL Download Error: Certificate Revocation List Distribution Points not "
                  "available\n");
    for (const char* points : {"URI:https://127.0.0.22/leaf.crl", "URI:HTTP://127.0.0.22/leaf.crl",
                               "URI:http://127.0.0.22", "URI:ldap://127.0.0.22/cn=leaf"}) {
        expectFailure(points,
                      "CRL Download Error: Unable to resolve Certificate Revocation List "
                      "Distribution Points\n");
    }
}

TEST_F(CrlDownloadTest, GoodListIsFetchedWithOneHttp10GetThroughATemporaryFile) {
    const ScriptedHttpServer server(kScriptedAddress, served(crlDER(pki.intermediateKey.get())));
    if (!server.running()) GTEST_SKIP() << server.failure();
    const std::size_t filesBefore = testsupport::temporaryFilesCreated("/tmp/certCRL_");
    EXPECT_TRUE(download(leafWith("URI:ldap://127.0.0.22/cn=x,URI:http://127.0.0.22/a/b.crl"),
                         Mode::ThrowOnError));
    // A file of its own, gone again (see TearDown).
    EXPECT_EQ(testsupport::temporaryFilesCreated("/tmp/certCRL_"), filesBefore + 1);
    ASSERT_EQ(crls.size(), 1u);
    EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store.get())), 1);
    download(leafWith("URI:http://127.0.0.22/"), Mode::ThrowOnError);
    EXPECT_EQ(
        server.requests(),
        (std::vector<std::string>{
            "GET /a/b.crl HTTP/1.0\r\nHost: 127.0.0.22\r\nAccept: */*\r\n"
            "Connection: close\r\n\r\n",
            "GET / HTTP/1.0\r\nHost: 127.0.0.22\r\nAccept: */*\r\nConnection: close\r\n\r\n"}));
}

TEST_F(CrlDownloadTest, HostileServersAndBadListsAreRefusedAfterTheFirstPoint) {
    const std::string verification = "CRL Verification Error: ";
    const std::string pemList = testsupport::crlToPEM(
        testsupport::makeCRL(pki.intermediate.get(), pki.intermediateKey.get()).get());
    const std::vector<std::pair<std::string, std::string>> answers{
        {"HTTP/1.0 404 Not Found\r\n\r\n", kNotFound},
        {"SMTP 220 ready\r\n\r\nbody", kInvalidResponse},
        {"HTTP/1.0 OK\r\n\r\nbody", kInvalidResponse},  // no status code
        {"", kInvalidResponse},                         // closed at once
        {"HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n",
         kWrap + "CRL Download Error: CRL HTTP data is empty\n\n"},
        {"HTTP/1.0 200 OK\r\nContent-Type: text/html\r\n\r\n<html>hi</html>", kInvalidList},
        {"HTTP/1.0 200 OK\r\nContent-Length: 900\r\n\r\n\x30\x82\x03\x80\x30\x82", kInvalidList},
        {served(crlDER(pki.rootKey.get())),
         verification + "Failed to verify the Certificate Revocation List signature\n"},
        {served(crlDER(pki.intermediateKey.get(), -60)),
         verification + "Certificate Revocation List has expired\n"},
        {served(crlDER(pki.intermediateKey.get(), std::nullopt)),
         verification +
             "Failed to retrieve the next update date from the Certificate Revocation List\n"},
        {"HTTP/1.0 200 OK\r\n\r\n" + pemList, kInvalidList},
    };
    for (const auto& [response, message] : answers) {
        const ScriptedHttpServer server(kScriptedAddress, response);
        if (!server.running()) GTEST_SKIP() << server.failure();
        // Only the first http point is tried.
        expectFailure("URI:" + server.url("leaf.crl") + ",URI:" + server.url("second.crl"),
                      message);
        for (const auto& request : server.requests()) EXPECT_EQ(request.find("GET /leaf.crl "), 0u);
    }
}

TEST_F(CrlDownloadTest, ConnectionRefused) {
    if (const std::string reason = testsupport::cannotBindPort80(kSilentAddress); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    expectFailure("URI:http://127.0.0.24/leaf.crl",
                  kWrap + "CRL Download Error: Unable to connect: Connection refused\n\n");
}

TEST(HttpResponse, ParsesFromAnyStream) {
    std::istringstream ok("HTTP/1.1 200 OK\r\nServer: x\r\n\r\nthe body\r\nmore");
    EXPECT_EQ(detail::readHttpResponse(ok, Mode::ThrowOnError), "the body\r\nmore");
    std::istringstream noBlankLine("HTTP/1.0 200 OK\r\nServer: x\r\n");
    EXPECT_EQ(detail::readHttpResponse(noBlankLine, Mode::ThrowOnError), "");
    std::istringstream redirect("HTTP/1.0 301 Moved\r\nLocation: /x\r\n\r\n");
    EXPECT_THROW_MSG(detail::readHttpResponse(redirect, Mode::ThrowOnError),
                     fc::X509CertificateException,
                     "CRL Download Error: Response returned with status code: 301\n");
    std::istringstream quiet("HTTP/1.0 500 Oops\r\n\r\n");
    EXPECT_EQ(detail::readHttpResponse(quiet, Mode::IgnoreErrors), "");
}

}  // namespace
