// A server that accepts and never answers: the download gives up at its 60-second deadline.
// Slow by design.
#include "CrlDownload.hpp"
#include "support/Expectations.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestHttpServers.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <chrono>

namespace fc = foundation::certificates;

namespace {

TEST(CrlDownloadDeadline, SilentServerIsGivenUpAfterSixtySeconds) {
    const testsupport::ScriptedHttpServer server(
        "127.0.0.23", "", testsupport::ScriptedHttpServer::Mode::NeverAnswer);
    if (!server.running()) GTEST_SKIP() << server.failure();

    const auto& pki = testsupport::rsaPKI();
    testsupport::CertificateRecipe recipe;
    recipe.key = pki.leafKey.get();
    recipe.issuer = pki.intermediate.get();
    recipe.issuerKey = pki.intermediateKey.get();
    recipe.extensions = {{NID_crl_distribution_points, "URI:" + server.url("leaf.crl")}};
    const fc::X509Certificate leaf(testsupport::toDER(testsupport::makeCertificate(recipe).get()));

    fc::detail::StoreUPtr store(X509_STORE_new(), X509_STORE_free);
    std::vector<fc::X509CRLUPtr> crls;
    fc::EVP_PKEYUPtr issuerKey = fc::makeEVP_PKEYUPtr(X509_get_pubkey(pki.intermediate.get()));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW_MSG(
        fc::detail::downloadCRL(leaf, store, crls,
                                fc::CertificateValidationOptions::DownloadCRL::ThrowOnError,
                                issuerKey,
                                std::chrono::time_point_cast<std::chrono::microseconds>(
                                    std::chrono::system_clock::now())),
        fc::X509CertificateException,
        "CRL Download Error: Unable to get Certificate Revocation List HTTP data. CRL Download "
        "Error: Invalid response\n\n");
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::seconds(59));
    EXPECT_LT(elapsed, std::chrono::seconds(75));
    EXPECT_EQ(testsupport::leftoverCrlFiles(), std::vector<std::string>{});
}

}  // namespace
