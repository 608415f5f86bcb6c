// Downloading revocation lists under fetch settings: the response reader on its own, then real
// loopback servers built to break each limit, then whole validations.
#include "CrlMessages.hpp"
#include "HttpFetch.hpp"
#include "HttpResponseReader.hpp"
#include "support/Expectations.hpp"
#include "support/TemporaryFileProbe.hpp"
#include "support/TestCRLs.hpp"
#include "support/TestCertificates.hpp"
#include "support/TestHttpServers.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/CrlCache.hpp>
#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace fc = foundation::certificates;
namespace detail = fc::detail;
namespace message = detail::crlmessage;
using Progress = detail::HttpResponseReader::Progress;
using Server = testsupport::ScriptedHttpServer;
using Options = fc::CertificateValidationOptions;
using std::chrono::milliseconds;

namespace {

const std::string kInvalidResponse = message::wrapped(message::kInvalidResponse);

struct ReaderCase {
    const char* name;
    std::string input;
    bool closed;  // the peer closes after the input
    std::size_t cap;
    Progress progress;
    std::string bodyOrFailure;
};

const std::string kChunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

class HttpResponseReaderTest : public ::testing::TestWithParam<ReaderCase> {};

// Whatever way the bytes are split, the outcome is the same.
TEST_P(HttpResponseReaderTest, ReadsWholeOrByteByByte) {
    const ReaderCase& c = GetParam();
    for (const std::size_t step : {c.input.size(), std::size_t{1}, std::size_t{7}}) {
        SCOPED_TRACE(step);
        detail::HttpResponseReader reader(c.cap);
        for (std::size_t at = 0; at < c.input.size(); at += step) {
            reader.feed(c.input.data() + at, std::min(step, c.input.size() - at));
        }
        if (c.closed) reader.finish();
        EXPECT_EQ(reader.progress(), c.progress);
        EXPECT_EQ(c.progress == Progress::Failed ? reader.failure() : reader.body(),
                  c.bodyOrFailure);
        if (c.cap != 0) {
            EXPECT_LE(reader.body().size(), c.cap);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Responses, HttpResponseReaderTest,
    ::testing::Values(
        ReaderCase{"UntilClose", "HTTP/1.0 200 OK\r\nServer: x\r\n\r\nthe\r\nbody", true, 0,
                   Progress::Complete, "the\r\nbody"},
        ReaderCase{"BareLineFeeds", "HTTP/1.0 200 OK\nServer: x\n\nbody", true, 0,
                   Progress::Complete, "body"},
        ReaderCase{"ContentLength", "HTTP/1.1 200 OK\r\ncontent-length: 4\r\n\r\nbodyMORE", false,
                   4, Progress::Complete, "body"},
        ReaderCase{"ContentLengthCut", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nbody", true, 0,
                   Progress::Failed, message::kEndedEarly},
        ReaderCase{"ContentLengthOverCap", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", false, 4,
                   Progress::Failed, message::kTooLarge},
        ReaderCase{"ContentLengthNotANumber", "HTTP/1.1 200 OK\r\nContent-Length: 5x\r\n\r\n",
                   false, 0, Progress::Failed, kInvalidResponse},
        ReaderCase{"UntilCloseOverCap", "HTTP/1.0 200 OK\r\n\r\n12345", false, 4, Progress::Failed,
                   message::kTooLarge},
        ReaderCase{"Chunked", kChunked + "4\r\nbody\r\n3;name=value\r\nmor\r\n0\r\nX-T: 1\r\n\r\n",
                   false, 7, Progress::Complete, "bodymor"},
        ReaderCase{"ChunkedWithoutClosingLine", kChunked + "4\r\nbody\r\n0\r\n", true, 0,
                   Progress::Complete, "body"},
        ReaderCase{"ChunkedCut", kChunked + "9\r\nbody", true, 0, Progress::Failed,
                   message::kEndedEarly},
        ReaderCase{"ChunkedWithoutLastChunk", kChunked + "4\r\nbody\r\n", true, 0, Progress::Failed,
                   message::kEndedEarly},
        ReaderCase{"ChunkOverCap", kChunked + "4\r\nbody\r\n3\r\n", false, 6, Progress::Failed,
                   message::kTooLarge},
        ReaderCase{"ChunkSizeOverflows", kChunked + "1ffffffffffffffff\r\n", false, 0,
                   Progress::Failed, message::kBadChunk},
        ReaderCase{"ChunkSizeNotHex", kChunked + "zz\r\n", false, 0, Progress::Failed,
                   message::kBadChunk},
        ReaderCase{"ChunkNotClosed", kChunked + "4\r\nbodyX\r\n", false, 0, Progress::Failed,
                   message::kBadChunk},
        ReaderCase{"EndlessChunkSizeLine", kChunked + std::string(2000, '0'), false, 0,
                   Progress::Failed, message::kBadChunk},
        ReaderCase{"NotHttp", "SMTP 220 ready\r\n\r\n", false, 0, Progress::Failed,
                   kInvalidResponse},
        ReaderCase{"NoStatusCode", "HTTP/1.0 OK\r\n\r\n", false, 0, Progress::Failed,
                   kInvalidResponse},
        ReaderCase{"ClosedAtOnce", "", true, 0, Progress::Failed, kInvalidResponse},
        ReaderCase{"ClosedInTheHeaders", "HTTP/1.0 200 OK\r\nServer: x\r\n", true, 0,
                   Progress::Failed, kInvalidResponse},
        ReaderCase{"EndlessHeaders", "HTTP/1.0 200 OK\r\nX: " + std::string(70000, 'x'), false, 0,
                   Progress::Failed, kInvalidResponse},
        // Not 200: complete with the headers, the body is never read.
        ReaderCase{"Redirect", "HTTP/1.1 302 Found\r\nLocation: /next\r\n\r\nignored", false, 0,
                   Progress::Complete, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(HttpResponseReader, HeadersAndStatus) {
    detail::HttpResponseReader reader(0);
    const std::string response = "HTTP/1.1 307 Temporary\r\nLOCATION:  http://x/y \r\n\r\n";
    EXPECT_EQ(reader.feed(response.data(), response.size()), Progress::Complete);
    EXPECT_EQ(reader.status(), 307u);
    EXPECT_EQ(reader.header("location"), "http://x/y");
    EXPECT_EQ(reader.header("Content-Length"), std::nullopt);
}

TEST(HttpUri, PortsSchemesAndUnsafeBytes) {
    using Parsed = std::optional<std::tuple<std::string, std::string, std::string, std::string>>;
    const auto parse = [](const std::string& uri) -> Parsed {
        const auto location = detail::parseHttpUri(uri);
        if (!location) return std::nullopt;
        return std::make_tuple(location->host, location->port, location->authority, location->path);
    };
    EXPECT_EQ(parse("http://crl.test/a/b.crl"),
              std::make_tuple("crl.test", "80", "crl.test", "/a/b.crl"));
    EXPECT_EQ(parse("HTTP://crl.test:8080/x"),
              std::make_tuple("crl.test", "8080", "crl.test:8080", "/x"));
    EXPECT_EQ(parse("Http://crl.test"), std::make_tuple("crl.test", "80", "crl.test", "/"));
    EXPECT_EQ(parse("http://[::1]:81/x"), std::make_tuple("::1", "81", "[::1]:81", "/x"));
    for (const char* refused :
         {"https://crl.test/x", "ldap://crl.test/x", "http:///x", "http://crl.test:0/x",
          "http://crl.test:65536/x", "http://crl.test:8o/x", "http://crl.test:/x",
          "http://user@crl.test/x", "http://crl.test/a b", "http://crl.test/a\r\nX: y"}) {
        EXPECT_EQ(parse(refused), std::nullopt) << refused;
    }
}

// Servers on 127.0.0.40 with ports of their own.
constexpr char kAddress[] = "127.0.0.40";

std::string ok(const std::string& body) {
    return "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string redirect(int status, const std::string& location) {
    return "HTTP/1.1 " + std::to_string(status) + " Moved\r\nLocation: " + location +
           "\r\nContent-Length: 0\r\n\r\n";
}

detail::FetchResult fetch(const std::string& url, detail::FetchLimits limits) {
    const auto location = detail::parseHttpUri(url);
    if (!location) return {{}, "unparsable " + url};
    return detail::fetchHttp(*location, limits);
}

struct HostileCase {
    const char* name;
    Server::Mode mode;
    std::string response;
    detail::FetchLimits limits;
    std::string failure;
    milliseconds atMost;  // how long the download may take to give up
};

class HostileServerTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileServerTest, GivesUpWithinItsLimits) {
    const HostileCase& c = GetParam();
    const Server server(kAddress, c.response, c.mode, 0);
    ASSERT_TRUE(server.running()) << server.failure();
    const auto start = std::chrono::steady_clock::now();
    const detail::FetchResult result = fetch(server.url("list.crl"), c.limits);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(result.failure, c.failure);
    EXPECT_TRUE(result.body.empty());
    EXPECT_LT(elapsed, c.atMost);
}

const std::string kChunkedList = kChunked + "3\r\nabc\r\n3\r\ndef\r\n";

INSTANTIATE_TEST_SUITE_P(
    Limits, HostileServerTest,
    ::testing::Values(HostileCase{"ListenerThatNeverAccepts",
                                  Server::Mode::NeverAccept,
                                  "",
                                  {milliseconds(300), milliseconds(60000), 0},
                                  message::kConnectTimedOut,
                                  milliseconds(2000)},
                      HostileCase{"SilentAfterAccepting",
                                  Server::Mode::NeverAnswer,
                                  "",
                                  {milliseconds(300), milliseconds(400), 0},
                                  message::kResponseTimedOut,
                                  milliseconds(2000)},
                      HostileCase{"ByteAtATime",
                                  Server::Mode::Drip,
                                  ok(std::string(200, 'x')),
                                  {milliseconds(300), milliseconds(500), 0},
                                  message::kResponseTimedOut,
                                  milliseconds(2000)},
                      HostileCase{"EndlessUnderACap",
                                  Server::Mode::Endless,
                                  "",
                                  {milliseconds(0), milliseconds(0), 100000},
                                  message::kTooLarge,
                                  milliseconds(5000)},
                      HostileCase{"EndlessUnderADeadline",
                                  Server::Mode::Endless,
                                  "",
                                  {milliseconds(0), milliseconds(500), 0},
                                  message::kResponseTimedOut,
                                  milliseconds(3000)},
                      HostileCase{"DeclaresTooMuch",
                                  Server::Mode::Respond,
                                  ok(std::string(2000, 'x')),
                                  {milliseconds(0), milliseconds(5000), 1000},
                                  message::kTooLarge,
                                  milliseconds(2000)},
                      HostileCase{"ChunkOverTheCap",
                                  Server::Mode::Respond,
                                  kChunked + "400\r\n",
                                  {milliseconds(0), milliseconds(5000), 1000},
                                  message::kTooLarge,
                                  milliseconds(2000)},
                      HostileCase{"ChunkedCutShort",
                                  Server::Mode::Respond,
                                  kChunkedList,
                                  {milliseconds(0), milliseconds(5000), 0},
                                  message::kEndedEarly,
                                  milliseconds(2000)},
                      HostileCase{"NotFound",
                                  Server::Mode::Respond,
                                  "HTTP/1.0 404 Not Found\r\n\r\n",
                                  {milliseconds(0), milliseconds(5000), 0},
                                  message::wrapped(std::string(message::kStatusCode) + "404\n"),
                                  milliseconds(2000)},
                      HostileCase{"RedirectToHttps",
                                  Server::Mode::Respond,
                                  redirect(301, "https://127.0.0.40/list.crl"),
                                  {milliseconds(0), milliseconds(5000), 0},
                                  message::kRedirectToHttps,
                                  milliseconds(2000)},
                      HostileCase{"RedirectNowhere",
                                  Server::Mode::Respond,
                                  redirect(302, ""),
                                  {milliseconds(0), milliseconds(5000), 0},
                                  message::kInvalidRedirect,
                                  milliseconds(2000)},
                      HostileCase{"RedirectToItself",
                                  Server::Mode::Respond,
                                  redirect(307, "/list.crl"),
                                  {milliseconds(0), milliseconds(5000), 0},
                                  message::kTooManyRedirects,
                                  milliseconds(2000)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(HttpFetch, ExplicitPortChunkedBodyAndHostHeader) {
    const Server server(kAddress, kChunkedList + "0\r\n\r\n", Server::Mode::Respond, 0);
    ASSERT_TRUE(server.running()) << server.failure();
    const detail::FetchResult result =
        fetch(server.url("a/list.crl"), {milliseconds(1000), milliseconds(5000), 6});
    EXPECT_EQ(result.failure, "");
    EXPECT_EQ(result.body, "abcdef");
    const std::string authority = std::string(kAddress) + ":" + std::to_string(server.port());
    EXPECT_EQ(server.requests(),
              std::vector<std::string>{"GET /a/list.crl HTTP/1.0\r\nHost: " + authority +
                                       "\r\nAccept: */*\r\nConnection: close\r\n\r\n"});
}

TEST(HttpFetch, ConnectionRefusedReadsAsToday) {
    const detail::FetchResult result =
        fetch("http://127.0.0.41:9/list.crl", {milliseconds(1000), milliseconds(1000), 0});
    EXPECT_EQ(result.failure,
              message::wrapped(std::string(message::kUnableToConnect) + "Connection refused\n"));
}

// Names go through the system resolver, under the connection limit on a thread of its own.
TEST(HttpFetch, NamesAreResolvedUnderTheConnectionLimit) {
    for (const std::optional<milliseconds> limit :
         {std::optional(milliseconds(2000)), std::optional<milliseconds>()}) {
        const auto addresses = detail::resolveAddresses("localhost", "8080", limit);
        ASSERT_TRUE(addresses.has_value());
        EXPECT_NE(std::find(addresses->begin(), addresses->end(), "127.0.0.1:8080"),
                  addresses->end());
    }
    EXPECT_EQ(detail::resolveAddresses("127.0.0.40", "81", milliseconds(1)),
              std::vector<std::string>{"127.0.0.40:81"});
}

// Up to three redirects, relative or absolute, each status; a fourth is refused.
TEST(HttpFetch, RedirectsBetweenHttpLocations) {
    Server target(kAddress, ok("final"), Server::Mode::Respond, 0);
    Server hops("127.0.0.41", "", Server::Mode::Respond, 0);
    ASSERT_TRUE(target.running() && hops.running());
    hops.respond("/1", redirect(301, target.url("final.crl")));
    hops.respond("/2", redirect(302, "/1"));
    hops.respond("/3", redirect(308, hops.url("2").replace(0, 4, "HTTP")));
    hops.respond("/4", redirect(307, "/3"));
    const detail::FetchLimits limits{milliseconds(1000), milliseconds(5000), 10};
    for (const char* start : {"1", "3"}) {
        const detail::FetchResult result = fetch(hops.url(start), limits);
        EXPECT_EQ(result.failure, "") << start;
        EXPECT_EQ(result.body, "final") << start;
    }
    EXPECT_EQ(fetch(hops.url("4"), limits).failure, message::kTooManyRedirects);
    EXPECT_EQ(target.requests().size(), 2u);
}

// The exchange deadline starts once and covers every hop: two slow answers that would each fit
// do not fit together.
TEST(HttpFetch, RedirectsShareOneDeadline) {
    const std::string first = "HTTP/1.0 302 X\r\nLocation: /f\r\n\r\n";
    const std::string second = "HTTP/1.0 200 OK\r\n\r\nx";
    Server server(kAddress, first, Server::Mode::Drip, 0);
    ASSERT_TRUE(server.running()) << server.failure();
    server.respond("/f", second);
    const milliseconds deadline = Server::kDripInterval * ((first.size() + second.size()) * 3 / 4);
    ASSERT_GT(deadline, Server::kDripInterval * (std::max(first.size(), second.size()) + 4));
    EXPECT_EQ(fetch(server.url("list.crl"), {milliseconds(1000), deadline, 0}).failure,
              message::kResponseTimedOut);
    EXPECT_EQ(server.requests().size(), 2u);
}

// Whole validations under fetch settings.
struct FetchPKI {
    const testsupport::TestPKI& base = testsupport::rsaPKI();
    fc::TrustStore trusted = [this] {
        fc::TrustStore store;
        store.addCertificate(fc::X509Certificate(base.root.get()));
        return store;
    }();
    fc::X509CertificateChain chain{testsupport::toPEM(base.intermediate.get())};
    fc::X509CRLUPtr revoking =
        testsupport::makeCRL(base.intermediate.get(), base.intermediateKey.get(), {"77"});
    std::string revokingList = served(revoking.get());
    // Names the intermediate, signed by the root.
    fc::X509CRLUPtr forged =
        testsupport::makeCRL(base.intermediate.get(), base.rootKey.get(), {"77"});

    static std::string served(const X509_CRL* list) {
        const fc::ByteArray der = testsupport::crlToDER(list);
        return ok(std::string(der.begin(), der.end()));
    }

    // A leaf of the intermediate's, serial 77, with these distribution points.
    fc::X509Certificate leaf(const std::vector<std::string>& points) const {
        testsupport::CertificateRecipe recipe;
        recipe.key = base.leafKey.get();
        recipe.issuer = base.intermediate.get();
        recipe.issuerKey = base.intermediateKey.get();
        recipe.serialHex = "77";
        std::string value;
        for (const std::string& point : points) value += (value.empty() ? "URI:" : ",URI:") + point;
        recipe.extensions = {{NID_crl_distribution_points, value}};
        return fc::X509Certificate(testsupport::makeCertificate(recipe).get());
    }
};

const FetchPKI& fetchPKI() {
    static const FetchPKI instance;
    return instance;
}

Options leafCheck(Options::DownloadCRL download, fc::RevocationFetchSettings settings) {
    Options options(Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
                    Options::AllowRevokedCertificate::No, Options::CheckCRL::LeafOnly, download);
    options.withRevocationFetch(std::move(settings));
    return options;
}

class FetchingValidationTest : public ::testing::Test {
  protected:
    void SetUp() override { filesBefore = testsupport::temporaryFilesCreated("/tmp/certCRL_"); }
    // Lists are parsed from memory: no temporary file at all.
    void TearDown() override {
        EXPECT_EQ(testsupport::temporaryFilesCreated("/tmp/certCRL_"), filesBefore);
    }

    fc::CertificateChainStatus status(const fc::X509Certificate& leaf, const Options& options) {
        const FetchPKI& p = fetchPKI();
        return leaf.validateCertificate(p.chain, options, p.trusted).getCertificateChainStatus();
    }

    std::size_t filesBefore = 0;
};

TEST_F(FetchingValidationTest, RevokedLeafFromAPortAndAnUpperCaseScheme) {
    const FetchPKI& p = fetchPKI();
    const Server server(kAddress, p.revokingList, Server::Mode::Respond, 0);
    ASSERT_TRUE(server.running()) << server.failure();
    const fc::X509Certificate leaf = p.leaf({"HTTP" + server.url("leaf.crl").substr(4)});
    const auto results = leaf.validateCertificate(
        p.chain, leafCheck(Options::DownloadCRL::ThrowOnError, {}), p.trusted);
    EXPECT_EQ(results.getCertificateChainStatus(), fc::CertificateChainStatus::Revoked);
    EXPECT_EQ(results.getCertificateRevocationResults().getRevokedSerialNumberString(), "119");
    EXPECT_FALSE(results.getCertificateRevocationResults().getRevocationDateString().empty());
}

TEST_F(FetchingValidationTest, DeadFirstPointThenAWorkingSecond) {
    const FetchPKI& p = fetchPKI();
    const Server server(kAddress, p.revokingList, Server::Mode::Respond, 0);
    ASSERT_TRUE(server.running()) << server.failure();
    const fc::X509Certificate leaf =
        p.leaf({"http://127.0.0.41:9/dead.crl", server.url("leaf.crl")});
    fc::RevocationFetchSettings every;
    every.connectTimeout = milliseconds(1000);
    every.tryEveryDistributionPoint = true;
    EXPECT_EQ(status(leaf, leafCheck(Options::DownloadCRL::ThrowOnError, every)),
              fc::CertificateChainStatus::Revoked);

    // Only the first point otherwise, as without settings.
    EXPECT_THROW_MSG(
        status(leaf, leafCheck(Options::DownloadCRL::ThrowOnError, {})),
        fc::X509CertificateException,
        message::wrapped(std::string(message::kUnableToConnect) + "Connection refused\n"));
    EXPECT_EQ(server.requests().size(), 1u);
}

// New failures follow the DownloadCRL mode like the old ones: thrown, or checking switched off.
TEST_F(FetchingValidationTest, LimitsFollowTheDownloadMode) {
    const FetchPKI& p = fetchPKI();
    const Server endless(kAddress, "", Server::Mode::Endless, 0);
    ASSERT_TRUE(endless.running()) << endless.failure();
    const fc::X509Certificate leaf = p.leaf({endless.url("leaf.crl")});
    fc::RevocationFetchSettings capped;
    capped.maxResponseBytes = 4096;
    EXPECT_THROW_MSG(status(leaf, leafCheck(Options::DownloadCRL::ThrowOnError, capped)),
                     fc::X509CertificateException, message::kTooLarge);
    EXPECT_EQ(status(leaf, leafCheck(Options::DownloadCRL::IgnoreErrors, capped)),
              fc::CertificateChainStatus::Valid);

    // Every point failing: the last failure is the one reported.
    fc::RevocationFetchSettings every = capped;
    every.tryEveryDistributionPoint = true;
    EXPECT_THROW_MSG(
        status(p.leaf({endless.url("leaf.crl"), "https://127.0.0.41/x", "http://127.0.0.41:9/x"}),
               leafCheck(Options::DownloadCRL::ThrowOnError, every)),
        fc::X509CertificateException,
        message::wrapped(std::string(message::kUnableToConnect) + "Connection refused\n"));
}

fc::TimePoint now() {
    return std::chrono::time_point_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now());
}

fc::CertificateRevocationList listOf(const X509_CRL* crl) {
    return fc::CertificateRevocationList(testsupport::crlToDER(crl));
}

class CrlCacheTest : public FetchingValidationTest {
  protected:
    void SetUp() override {
        FetchingValidationTest::SetUp();
        ASSERT_TRUE(server.running()) << server.failure();
        settings.cache = cache;
    }

    Server server{kAddress, fetchPKI().revokingList, Server::Mode::Respond, 0};
    std::string url = server.url("leaf.crl");
    fc::X509Certificate leaf = fetchPKI().leaf({url});
    std::shared_ptr<fc::CrlCache> cache = std::make_shared<fc::CrlCache>();
    fc::RevocationFetchSettings settings;
};

TEST_F(CrlCacheTest, KeepsAListUntilInvalidated) {
    const Options options = leafCheck(Options::DownloadCRL::ThrowOnError, settings);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(status(leaf, options), fc::CertificateChainStatus::Revoked);
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(cache->size(), 1u);
    ASSERT_TRUE(cache->find(url, now()).has_value());
    EXPECT_EQ(*cache->find(url, now()), listOf(fetchPKI().revoking.get()));

    cache->invalidate(url);
    EXPECT_EQ(cache->size(), 0u);
    EXPECT_EQ(status(leaf, options), fc::CertificateChainStatus::Revoked);
    EXPECT_EQ(server.requests().size(), 2u);
    cache->clear();
    EXPECT_EQ(cache->size(), 0u);
}

using CrlCacheConcurrencyTest = CrlCacheTest;

// The first validation downloads; the others wait for it and share its entry.
TEST_F(CrlCacheConcurrencyTest, ValidationsShareOneDownload) {
    server.delay(milliseconds(300));
    settings.connectTimeout = milliseconds(2000);
    settings.exchangeTimeout = milliseconds(5000);
    const Options options = leafCheck(Options::DownloadCRL::ThrowOnError, settings);
    std::atomic<int> revoked{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(
            [&] { revoked += status(leaf, options) == fc::CertificateChainStatus::Revoked; });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(revoked, 4);
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(cache->size(), 1u);
}

// A list cached for a URL vouches only for an issuer whose key verifies it.
TEST_F(CrlCacheTest, PreloadedListsAreCheckedAgainstTheIssuer) {
    const std::string nowhere = "http://127.0.0.41:9/leaf.crl";
    const fc::X509Certificate offline = fetchPKI().leaf({nowhere});
    const Options options = leafCheck(Options::DownloadCRL::ThrowOnError, settings);
    cache->insert(nowhere, listOf(fetchPKI().forged.get()));
    EXPECT_THROW_MSG(
        status(offline, options), fc::X509CertificateException,
        message::wrapped(std::string(message::kUnableToConnect) + "Connection refused\n"));
    cache->insert(nowhere, listOf(fetchPKI().revoking.get()));
    EXPECT_EQ(status(offline, options), fc::CertificateChainStatus::Revoked);
    EXPECT_EQ(cache->size(), 1u);
    EXPECT_THROW_MSG(cache->insert(nowhere, fc::CertificateRevocationList()),
                     fc::CertificateRevocationListException,
                     "Error: CertificateRevocationList has no content.");
}

// Freshness is judged at the time asked: a list is dropped once its next update has come.
TEST_F(CrlCacheTest, ListsLeaveAtTheirNextUpdate) {
    const fc::CertificateRevocationList list = listOf(fetchPKI().revoking.get());
    const fc::TimePoint next = *list.getNextUpdateTimePoint();
    cache->insert(url, list);
    EXPECT_TRUE(cache->find(url, next - std::chrono::seconds(1)).has_value());
    EXPECT_EQ(cache->find(url, next), std::nullopt);
    EXPECT_EQ(cache->size(), 0u);

    // A validation of its own time judges cached and downloaded lists at that time.
    cache->insert(url, list);
    Options later = leafCheck(Options::DownloadCRL::ThrowOnError, settings);
    later.withValidationTime(std::chrono::system_clock::now() + std::chrono::hours(24 * 8));
    EXPECT_EQ(status(leaf, leafCheck(Options::DownloadCRL::ThrowOnError, settings)),
              fc::CertificateChainStatus::Revoked);
    EXPECT_TRUE(server.requests().empty());
    EXPECT_THROW_MSG(status(leaf, later), fc::X509CertificateException, message::kExpired);
    EXPECT_EQ(server.requests().size(), 1u);

    testsupport::CRLRecipe open;
    open.issuer = fetchPKI().base.intermediate.get();
    open.signingKey = fetchPKI().base.intermediateKey.get();
    open.nextUpdateOffset = std::nullopt;
    cache->insert(url, listOf(testsupport::makeCRL(open).get()));
    EXPECT_EQ(cache->find(url, now()), std::nullopt);
}

}  // namespace
