// The system's trusted certificates on a platform without trust settings: the PEM bundle named
// by SSL_CERT_FILE, or the system's own bundle.
#include "support/TestLogging.hpp"
#include "support/TestTrustBundle.hpp"
#include "support/TestTrustStores.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/SystemCertificateAdder.hpp>
#include <foundation/certificates/TrustStore.hpp>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <unistd.h>

namespace fc = foundation::certificates;
using fc::ByteArray;
using fc::TrustStore;
using Ders = std::set<ByteArray>;

namespace {

// What an SSL import should hold, worked out with OpenSSL alone: every certificate of the file
// that parses, has not expired and passes the TLS server purpose check.
Ders expectedSSLCertificatesOf(const std::string& path) {
    Ders expected;
    const fc::BIOUPtr file = fc::makeBIOUPtr(BIO_new_file(path.c_str(), "r"));
    while (file) {
        const fc::X509UPtr x =
            fc::makeX509UPtr(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
        if (!x && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE) break;
        if (x && X509_cmp_current_time(X509_get0_notAfter(x.get())) > 0 &&
            X509_check_purpose(x.get(), X509_PURPOSE_SSL_SERVER, X509_check_ca(x.get())) > 0) {
            expected.insert(testsupport::toDER(x.get()));
        }
    }
    ERR_clear_error();
    return expected;
}

// Read with OpenSSL: a system bundle holds keys that X509Certificate refuses.
Ders contentsOf(const TrustStore& store) {
    Ders held;
    const std::shared_ptr<X509_STORE> live = fc::getOpenSSLStore(store);
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(live.get());
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i)
        held.insert(testsupport::toDER(X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i))));
    return held;
}

// A CERTIFICATE block of any bytes.
std::string pemBlock(const ByteArray& der, bool crlf = false) {
    std::string block = testsupport::pemBlock(der);
    for (std::size_t at = 0; crlf && (at = block.find('\n', at)) != std::string::npos; at += 2)
        block.insert(at, 1, '\r');
    return block;
}

TEST(SystemCertificates, SSLImportHoldsTheBundlesUnexpiredTLSCertificates) {
    using testsupport::kDay;
    using testsupport::makeQuickCertificate;
    const auto der = [](const fc::X509UPtr& x) { return testsupport::toDER(x.get()); };
    const ByteArray root = der(makeQuickCertificate("Bundle Root", true));
    const ByteArray expired = der(makeQuickCertificate("Expired", true, {}, -60 * kDay, -kDay));
    const ByteArray future = der(makeQuickCertificate("Future", true, {}, kDay, 60 * kDay));
    const ByteArray server =
        der(makeQuickCertificate("server.test", false, {{NID_ext_key_usage, "serverAuth"}}));
    const ByteArray signer =
        der(makeQuickCertificate("Signer", false, {{NID_ext_key_usage, "codeSigning"}}));
    const std::string bundle = (std::filesystem::temp_directory_path() /
                                ("foundation_truststore_" + std::to_string(getpid()) + ".pem"))
                                   .string();
    const testsupport::LogCapture log;
    const testsupport::ScopedTrustTree noOtherSources;
    for (const std::string& path : {bundle, std::filesystem::temp_directory_path().string()}) {
        setenv("SSL_CERT_FILE", path.c_str(), 1);  // missing, then a folder: nothing to add
        TrustStore store;
        store.addSystemCertificates(TrustStore::Usage::SSL, true);
        EXPECT_TRUE(store.empty()) << path;
    }
    EXPECT_TRUE(log.records().empty());

    std::ofstream(bundle, std::ios::binary)
        << "# Roots for tests\n"
        << pemBlock(root) << "\n# expired\n"
        << pemBlock(expired) << pemBlock(future, true) << pemBlock(server)
        << pemBlock(ByteArray(root.begin(), root.begin() + 40)) << pemBlock(signer)
        << pemBlock(root);
    setenv("SSL_CERT_FILE", bundle.c_str(), 1);
    const TrustStore original;
    TrustStore store(original);  // imports through its own clone of the adder
    store.addSystemCertificates(TrustStore::Usage::SSL, false);
    const Ders expected = expectedSSLCertificatesOf(bundle);
    EXPECT_EQ(expected, (Ders{root, future, server}));
    EXPECT_EQ(contentsOf(store), expected);
    EXPECT_EQ(log.records().size(), 1u);  // the damaged block

    unsetenv("SSL_CERT_FILE");
    std::filesystem::remove(bundle);
}

TEST(SystemBundle, SSLImportHoldsExactlyTheUnexpiredTLSRoots) {
    unsetenv("SSL_CERT_FILE");
    const std::string path = X509_get_default_cert_file();
    EXPECT_EQ(fc::getSystemCertificatesFile(), path);
    if (!std::filesystem::exists(path)) GTEST_SKIP() << "No system certificate bundle at " << path;
    TrustStore store;
    store.addSystemCertificates(TrustStore::Usage::SSL, false);
    const Ders expected = expectedSSLCertificatesOf(path);
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(contentsOf(store), expected);
    EXPECT_EQ(store.size(), expected.size());
}

}  // namespace
