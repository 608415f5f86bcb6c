// Loading, reading and comparing revocation lists.
#include "support/Expectations.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/X509Certificate.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/sha.h>

#include <atomic>
#include <functional>
#include <sstream>
#include <thread>

namespace fc = foundation::certificates;
using fc::CertificateRevocationList;

namespace {

constexpr char kNoContent[] = "Error: CertificateRevocationList has no content.";

// Three entries, given out of serial order; one with a reason (1: keyCompromise).
struct Lists {
    const testsupport::TestPKI& pki = testsupport::rsaPKI();
    fc::X509CRLUPtr crl =
        testsupport::makeCRL({pki.intermediate.get(),
                              pki.intermediateKey.get(),
                              {{"1002", 1700000000, 1}, {"FF", 1700000100}, {"51", 1600000000}},
                              -3600,
                              86400});
    fc::ByteArray der = testsupport::crlToDER(crl.get());
    std::string pem = testsupport::crlToPEM(crl.get());
};

const Lists& lists() {
    static const Lists instance;
    return instance;
}

TEST(CertificateRevocationList, EveryFormLoadsTheSameList) {
    const Lists& l = lists();
    std::istringstream stream(l.pem);
    const std::vector<std::pair<const char*, std::function<CertificateRevocationList()>>> forms{
        {"DER bytes", [&] { return CertificateRevocationList(l.der); }},
        {"DER string",
         [&] { return CertificateRevocationList(std::string(l.der.begin(), l.der.end())); }},
        {"PEM string", [&] { return CertificateRevocationList(l.pem); }},
        {"PEM after text", [&] { return CertificateRevocationList("list:\n" + l.pem); }},
        {"PEM stream", [&] { return CertificateRevocationList(stream); }},
    };
    const CertificateRevocationList reference(l.der);
    for (const auto& [name, load] : forms) {
        SCOPED_TRACE(name);
        const CertificateRevocationList list = load();
        EXPECT_FALSE(list.empty());
        EXPECT_EQ(list, reference);
        EXPECT_EQ(list.getAsBytes(), l.der);
        EXPECT_EQ(list.getAsPEMString(), l.pem);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

TEST(CertificateRevocationList, Fields) {
    const Lists& l = lists();
    const CertificateRevocationList list(l.der);
    EXPECT_EQ(list.getIssuerName(), fc::X509Certificate(l.pki.intermediate.get()).getSubjectName());
    const auto lastUpdate = list.getLastUpdateTimePoint();
    const auto nextUpdate = list.getNextUpdateTimePoint();
    ASSERT_TRUE(nextUpdate.has_value());
    EXPECT_EQ(*nextUpdate - lastUpdate, std::chrono::seconds(86400 + 3600));
    EXPECT_EQ(list.getNextUpdate()->size(), list.getLastUpdate().size());
    EXPECT_EQ(list.getLastUpdate().substr(list.getLastUpdate().size() - 3), "GMT");

    const auto at = [](std::time_t seconds) {
        return fc::TimePoint(std::chrono::seconds(seconds));
    };
    EXPECT_EQ(list.getRevokedCertificates(),
              (std::vector<fc::RevokedCertificate>{
                  {"81", "Sep 13 12:26:40 2020 GMT", at(1600000000), std::nullopt},
                  {"255", "Nov 14 22:15:00 2023 GMT", at(1700000100), std::nullopt},
                  {"4098", "Nov 14 22:13:20 2023 GMT", at(1700000000), 1}}));

    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(l.der.data(), l.der.size(), digest);
    EXPECT_EQ(list.getSHA256Fingerprint(),
              fc::hexEncode(fc::ByteArray(digest, digest + sizeof digest)));

    std::ostringstream printed;
    printed << list;
    EXPECT_NE(printed.str().find("Revoked Certificates: 3;"), std::string::npos) << printed.str();

    const CertificateRevocationList open(testsupport::crlToDER(
        testsupport::makeCRL({l.pki.root.get(), l.pki.rootKey.get(), {}, -3600, std::nullopt})
            .get()));
    EXPECT_EQ(open.getNextUpdate(), std::nullopt);
    EXPECT_EQ(open.getNextUpdateTimePoint(), std::nullopt);
    EXPECT_TRUE(open.getRevokedCertificates().empty());
    EXPECT_NE(open, list);
}

TEST(CertificateRevocationList, SignatureIsCheckedAgainstTheIssuersKey) {
    const Lists& l = lists();
    const CertificateRevocationList list(l.der);
    EXPECT_TRUE(list.isSignedBy(fc::X509Certificate(l.pki.intermediate.get())));
    EXPECT_FALSE(list.isSignedBy(fc::X509Certificate(l.pki.root.get())));
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(CertificateRevocationList, BadInputIsRefused) {
    const Lists& l = lists();
    const std::string loadFailed = "Error: Loading a certificate revocation list failed. Reason=";
    const std::vector<std::pair<std::string, std::string>> unparsable{
        {"not a list", loadFailed + "too long"},
        {std::string(l.der.begin(), l.der.begin() + 40), loadFailed + "too long"},
        {"-----BEGIN X509 CRL-----\n!!!!\n-----END X509 CRL-----\n",
         loadFailed + "bad base64 decode"},
        {l.pem.substr(0, l.pem.size() / 2), loadFailed + "bad end line"},
        // A certificate is not a list.
        {testsupport::toPEM(l.pki.leaf.get()), loadFailed + "wrong tag"},
    };
    for (const auto& [data, message] : unparsable) {
        SCOPED_TRACE(message);
        EXPECT_THROW_MSG(CertificateRevocationList{data}, fc::CertificateRevocationListException,
                         message);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
    EXPECT_THROW_MSG(CertificateRevocationList{std::string()}, fc::InvalidArgument,
                     "The input certificate revocation list has no content.");
    EXPECT_THROW_MSG(CertificateRevocationList{fc::ByteArray()}, fc::InvalidArgument,
                     "The input certificate revocation list has no content.");
    std::istringstream failed(l.pem);
    failed.setstate(std::ios::failbit);
    EXPECT_THROW_MSG(CertificateRevocationList{failed}, fc::InvalidArgument,
                     "The input certificate revocation list data stream is invalid.");
}

TEST(CertificateRevocationList, EmptyListHasNoContent) {
    const CertificateRevocationList empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty, CertificateRevocationList());
    EXPECT_NE(empty, CertificateRevocationList(lists().der));
    EXPECT_THROW_MSG(empty.getIssuerName(), fc::CertificateRevocationListException, kNoContent);
    EXPECT_THROW_MSG(empty.getNextUpdate(), fc::CertificateRevocationListException, kNoContent);
    EXPECT_THROW_MSG(empty.getRevokedCertificates(), fc::CertificateRevocationListException,
                     kNoContent);
    EXPECT_THROW_MSG(empty.getAsBytes(), fc::CertificateRevocationListException, kNoContent);
    EXPECT_THROW_MSG(empty.isSignedBy(fc::X509Certificate(lists().pki.root.get())),
                     fc::CertificateRevocationListException, kNoContent);
    std::ostringstream printed;
    printed << empty;
    EXPECT_EQ(printed.str(), "Certificate Revocation List: (empty)\n");
}

TEST(CertificateRevocationListConcurrency, CopiesAreReadFromManyThreads) {
    const CertificateRevocationList list(lists().der);
    const fc::X509Certificate issuer(lists().pki.intermediate.get());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, copy = list] {
            for (int i = 0; i < 20; ++i) {
                wrong += copy.getRevokedCertificates().size() != 3;
                wrong += !copy.isSignedBy(issuer);
                wrong += copy != list;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
