// The system's trusted certificates on a platform without trust settings: the PEM bundle named
// by SSL_CERT_FILE, or OpenSSL's default certificate file.
#include "support/TestLogging.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/SystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStore.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <unistd.h>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::TrustStore;

namespace {

// What the store should hold after an SSL import, worked out from the file with OpenSSL alone:
// every CERTIFICATE block that parses, has not expired and passes the TLS server purpose check.
std::set<ByteArray> unexpiredSSLCertificatesOf(const std::string& path, int& unparsable) {
    std::set<ByteArray> expected;
    unparsable = 0;
    const fc::BIOUPtr file = fc::makeBIOUPtr(BIO_new_file(path.c_str(), "r"));
    if (!file) return expected;
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long length = 0;
    while (PEM_read_bio(file.get(), &name, &header, &data, &length) == 1) {
        if (std::strcmp(name, "CERTIFICATE") == 0) {
            const unsigned char* cursor = data;
            const fc::X509UPtr x = fc::makeX509UPtr(d2i_X509(nullptr, &cursor, length));
            if (!x) {
                ++unparsable;
            } else if (X509_cmp_current_time(X509_get0_notAfter(x.get())) > 0 &&
                       X509_check_purpose(x.get(), X509_PURPOSE_SSL_SERVER,
                                          X509_check_ca(x.get())) > 0) {
                expected.insert(ByteArray(static_cast<const unsigned char*>(data), cursor));
            }
        }
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    ERR_clear_error();
    return expected;
}

// Read back with OpenSSL: a system bundle holds keys that X509Certificate refuses.
std::set<ByteArray> contentsOf(const TrustStore& store) {
    std::set<ByteArray> held;
    for (const std::string& pem : store.getPEMStrings()) {
        const fc::BIOUPtr bio =
            fc::makeBIOUPtr(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        const fc::X509UPtr x =
            fc::makeX509UPtr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
        if (x) held.insert(testsupport::toDER(x.get()));
    }
    return held;
}

std::string pemBlock(const ByteArray& der, const char* lineEnd = "\n") {
    std::string base64(4 * ((der.size() + 2) / 3) + 1, '\0');
    base64.resize(
        static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()),
                                                 der.data(), static_cast<int>(der.size()))));
    std::string block = std::string("-----BEGIN CERTIFICATE-----") + lineEnd;
    for (std::size_t i = 0; i < base64.size(); i += 64) block += base64.substr(i, 64) + lineEnd;
    return block + "-----END CERTIFICATE-----" + lineEnd;
}

// Saves and restores the variables the platform reads.
class EnvironmentGuard {
  public:
    EnvironmentGuard() {
        for (const char* name : {"SSL_CERT_FILE", "SSL_CERT_DIR"}) {
            const char* value = std::getenv(name);
            saved.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
        }
    }
    ~EnvironmentGuard() {
        for (const auto& [name, value] : saved) {
            if (value) {
                setenv(name, value->c_str(), 1);
            } else {
                unsetenv(name);
            }
        }
    }

  private:
    std::vector<std::pair<const char*, std::optional<std::string>>> saved;
};

class SystemCertificatesTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        using testsupport::kDay;
        const auto der = [](const fc::X509UPtr& x) { return testsupport::toDER(x.get()); };
        root = der(testsupport::makeQuickCertificate("Bundle Root", true));
        expired =
            der(testsupport::makeQuickCertificate("Bundle Expired", true, {}, -60 * kDay, -kDay));
        future = der(testsupport::makeQuickCertificate("Bundle Future", true, {}, kDay, 60 * kDay));
        server = der(
            testsupport::makeQuickCertificate("server.bundle.test", false,
                                              {{NID_key_usage, "digitalSignature,keyEncipherment"},
                                               {NID_ext_key_usage, "serverAuth"}}));
        codeSigning = der(testsupport::makeQuickCertificate(
            "Bundle Code Signer", false,
            {{NID_key_usage, "digitalSignature"}, {NID_ext_key_usage, "codeSigning"}}));
        damaged = ByteArray(root.begin(), root.begin() + 40);
    }

    void SetUp() override {
        bundlePath = (std::filesystem::temp_directory_path() /
                      ("foundation_truststore_" + std::to_string(getpid()) + ".pem"))
                         .string();
        std::ofstream bundle(bundlePath, std::ios::binary);
        bundle << "# Roots for tests\n"
               << pemBlock(root) << "\n# expired\n"
               << pemBlock(expired) << pemBlock(future, "\r\n") << pemBlock(server)
               << pemBlock(damaged) << pemBlock(codeSigning) << pemBlock(root);
        setenv("SSL_CERT_FILE", bundlePath.c_str(), 1);
    }

    void TearDown() override { std::filesystem::remove(bundlePath); }

    static std::set<ByteArray> setOf(std::initializer_list<const ByteArray*> ders) {
        std::set<ByteArray> result;
        for (const ByteArray* der : ders) result.insert(*der);
        return result;
    }

    static ByteArray root, expired, future, server, codeSigning, damaged;
    EnvironmentGuard environment;
    std::string bundlePath;
};

ByteArray SystemCertificatesTest::root, SystemCertificatesTest::expired,
    SystemCertificatesTest::future, SystemCertificatesTest::server,
    SystemCertificatesTest::codeSigning, SystemCertificatesTest::damaged;

TEST_F(SystemCertificatesTest, SSLImportHoldsTheBundlesUnexpiredTLSCertificates) {
    const testsupport::LogCapture log;
    TrustStore store;
    store.addSystemCertificates(TrustStore::Usage::SSL, false);

    int unparsable = 0;
    const std::set<ByteArray> expected = unexpiredSSLCertificatesOf(bundlePath, unparsable);
    EXPECT_EQ(expected, setOf({&root, &future, &server}));
    EXPECT_EQ(contentsOf(store), expected);

    EXPECT_EQ(unparsable, 1);
    const auto records = log.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].message.rfind(
                  "Exception caught: Dynamic exception type: "
                  "foundation::certificates::TrustStoreException\n"
                  "std::exception::what: Failed to parse DER data to X509 certificate. "
                  "Cert size = 40\nCert Bytes =  0x30 0x82 ",
                  0),
              0u)
        << records[0].message;
}

TEST_F(SystemCertificatesTest, SigningImportKeepsSigningCertificates) {
    TrustStore store;
    store.addSystemCertificates(TrustStore::Usage::Signing, false);
    EXPECT_EQ(contentsOf(store), setOf({&root, &future, &codeSigning}));
}

TEST_F(SystemCertificatesTest, ThrowOnFailureStopsAtTheDamagedBlock) {
    TrustStore store;
    try {
        store.addSystemCertificates(TrustStore::Usage::SSL, true);
        ADD_FAILURE() << "the damaged block was accepted";
    } catch (const fc::TrustStoreException& e) {
        EXPECT_EQ(std::string(e.what()).rfind("Failed to parse DER data to X509 certificate. "
                                              "Cert size = 40\n",
                                              0),
                  0u);
    }
    // Added before the damaged block and not filtered, since the import did not finish.
    EXPECT_EQ(contentsOf(store), setOf({&root, &expired, &future, &server}));
}

TEST_F(SystemCertificatesTest, UnreadableBundleGivesNoCertificates) {
    const testsupport::LogCapture log;
    for (const std::string& path :
         {bundlePath + ".missing", std::filesystem::temp_directory_path().string()}) {
        setenv("SSL_CERT_FILE", path.c_str(), 1);
        TrustStore store;
        store.addSystemCertificates(TrustStore::Usage::SSL, true);
        EXPECT_TRUE(store.empty()) << path;
    }
    EXPECT_TRUE(log.records().empty());
}

TEST_F(SystemCertificatesTest, FileAndFolderFollowTheEnvironment) {
    EXPECT_EQ(fc::getSystemCertificatesFile(), bundlePath);
    setenv("SSL_CERT_DIR", "/tmp/foundation-certs", 1);
    EXPECT_EQ(fc::getSystemCertificatesFolder(), "/tmp/foundation-certs");

    unsetenv("SSL_CERT_FILE");
    unsetenv("SSL_CERT_DIR");
    EXPECT_EQ(fc::getSystemCertificatesFile(), X509_get_default_cert_file());
    EXPECT_EQ(fc::getSystemCertificatesFolder(), X509_get_default_cert_dir());
}

TEST(SystemBundle, SSLImportHoldsExactlyTheUnexpiredTLSRoots) {
    const EnvironmentGuard environment;
    unsetenv("SSL_CERT_FILE");
    const std::string path = X509_get_default_cert_file();
    if (!std::filesystem::exists(path)) {
        GTEST_SKIP() << "No system certificate bundle at " << path;
    }
    TrustStore store;
    store.addSystemCertificates(TrustStore::Usage::SSL, false);
    int unparsable = 0;
    const std::set<ByteArray> expected = unexpiredSSLCertificatesOf(path, unparsable);
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(contentsOf(store), expected);
    EXPECT_EQ(store.size(), expected.size());
}

}  // namespace
