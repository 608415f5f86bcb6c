// Memory of a TrustStore holding the trust bundle against a raw X509_STORE holding the same
// certificates, and of the signature cache per entry.
//
// Each side runs in a fresh process of its own (this program started again with --child), so
// neither inherits the other's heap. A child reads the bundle, warms OpenSSL and the library up
// the same way whatever it measures, then fills its store and reports the heap in use before and
// after (mallinfo2) and its resident high-water mark. A baseline child does everything but the
// filling. The parent prints one JSON object.
//
//   foundation_bench_memory [bundle.pem]     (default: SSL_CERT_FILE, else OpenSSL's default)
#include "BenchSupport.hpp"
#include "BundleFiles.hpp"

#include <foundation/certificates/CertificateValidation.hpp>
#include <foundation/certificates/TrustStore.hpp>
#include <foundation/certificates/X509Certificate.hpp>
#include <foundation/certificates/X509CertificateChain.hpp>

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fc = foundation::certificates;
using bench::libraryAcceptsKey;
using bench::readFile;

constexpr int kRuns = 3;  // children per side; the median is reported

std::vector<std::string> pemBlocks(const std::string& text) {
    static const std::string end = "-----END CERTIFICATE-----";
    std::vector<std::string> blocks;
    std::size_t start = 0;
    for (std::size_t found; (found = text.find(end, start)) != std::string::npos;) {
        const std::size_t stop = found + end.size();
        blocks.push_back(text.substr(start, stop - start) + "\n");
        start = stop;
    }
    return blocks;
}

X509* parse(const std::string& pem) {
    BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
    X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    return certificate;
}

long statusField(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::size_t length = std::strlen(field);
    while (std::getline(status, line)) {
        if (line.compare(0, length, field) == 0) return std::atol(line.c_str() + length);
    }
    return -1;
}

std::size_t heapInUse() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

int child(const std::string& mode, const std::string& path) {
    const std::vector<std::string> blocks = pemBlocks(readFile(path));
    if (blocks.empty()) return 2;

    // The same warm-up in every mode: OpenSSL's decoders, method caches and error strings, the
    // library's first load and first store, all set up before the first measurement.
    {
        X509* certificate = parse(blocks.front());
        if (certificate == nullptr) return 2;
        X509_check_purpose(certificate, -1, 0);
        X509_STORE* store = X509_STORE_new();
        X509_STORE_add_cert(store, certificate);
        X509_STORE_free(store);
        X509_free(certificate);
        fc::TrustStore libraryStore;
        libraryStore.addCertificate(fc::X509Certificate(blocks.front()));
    }

    const std::size_t heapBefore = heapInUse();
    const long rssBefore = statusField("VmRSS:");
    std::size_t count = 0;
    std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> rawStore(nullptr, X509_STORE_free);
    std::unique_ptr<fc::TrustStore> libraryStore;

    if (mode == "raw") {
        rawStore.reset(X509_STORE_new());
        for (const std::string& block : blocks) {
            X509* certificate = parse(block);
            if (X509_STORE_add_cert(rawStore.get(), certificate) == 1) ++count;
            X509_free(certificate);  // the store keeps its own reference
        }
    } else if (mode == "library") {
        libraryStore = std::make_unique<fc::TrustStore>();
        for (const std::string& block : blocks) {
            libraryStore->addCertificate(fc::X509Certificate(block));
        }
        count = libraryStore->size();
    } else if (mode != "baseline") {
        return 2;
    }

    const std::size_t heapAfter = heapInUse();
    const long rssAfter = statusField("VmRSS:");
    std::printf("%zu %zu %ld %ld\n", count, heapAfter - heapBefore, rssAfter - rssBefore,
                statusField("VmHWM:"));
    return 0;
}

// The signature cache filled to its default capacity by validating that many leaves of one
// chain: heap in use per entry, with every leaf loaded and validated once (cache off) before
// the measurement, so that only the entries are counted. Prints "<entries> <bytes>".
int cacheChild() {
    constexpr std::size_t kCapacity = 16384;
    const bench::PKI pki = bench::makePKI("P-256", "P-256", "P-256", "P-256");
    fc::TrustStore trust;
    trust.addCertificate(fc::X509Certificate(bench::toPEM(pki.root.get())));
    fc::X509CertificateChain chain;
    chain.addCertificate(fc::X509Certificate(bench::toPEM(pki.intermediate.get())));
    std::vector<fc::X509Certificate> leaves;
    for (long serial = 1000; leaves.size() < kCapacity; ++serial) {
        leaves.emplace_back(bench::toPEM(bench::makeLeaf(pki, serial).get()));
    }
    using Options = fc::CertificateValidationOptions;
    const Options options(
        Options::AllowSelfSignedCertificate::No, Options::AllowExpiredCertificate::No,
        Options::AllowRevokedCertificate::No, Options::CheckCRL::None, Options::DownloadCRL::No);
    const auto validateAll = [&] {
        for (const fc::X509Certificate& leaf : leaves) {
            if (leaf.validateCertificate(chain, options, trust).getCertificateChainStatus() !=
                fc::CertificateChainStatus::Valid) {
                return false;
            }
        }
        return true;
    };
    fc::setSignatureCacheCapacity(0);
    if (!validateAll()) return 2;
    fc::setSignatureCacheCapacity(kCapacity);
    const std::size_t heapBefore = heapInUse();
    if (!validateAll()) return 2;
    const std::size_t heapAfter = heapInUse();
    std::printf("%zu %zu\n", fc::getSignatureCacheStatistics().entries, heapAfter - heapBefore);
    return 0;
}

struct Sample {
    std::size_t count = 0;
    std::size_t heap = 0;
    long rss = 0;
    long peak = 0;
};

bool runChild(const std::string& self, const std::string& mode, const std::string& path,
              Sample& sample) {
    const std::string command = "'" + self + "' --child " + mode + " '" + path + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return false;
    const int read = std::fscanf(pipe, "%zu %zu %ld %ld", &sample.count, &sample.heap, &sample.rss,
                                 &sample.peak);
    const int status = pclose(pipe);
    return read == 4 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

template <typename T>
T median(std::vector<T> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--child") return child(argv[2], argv[3]);
    if (argc == 2 && std::string(argv[1]) == "--cache-child") return cacheChild();

    std::string bundle;
    if (argc > 1) {
        bundle = argv[1];
    } else {
        const char* fromEnvironment = std::getenv(X509_get_default_cert_file_env());
        bundle = fromEnvironment != nullptr ? fromEnvironment : X509_get_default_cert_file();
    }

    // Both sides get the certificates X509Certificate can hold.
    std::size_t total = 0;
    std::string accepted;
    for (const std::string& block : pemBlocks(readFile(bundle))) {
        X509* certificate = parse(block);
        if (certificate == nullptr) continue;
        ++total;
        if (libraryAcceptsKey(certificate)) accepted += block;
        X509_free(certificate);
    }
    ERR_clear_error();
    if (accepted.empty()) {
        std::fprintf(stderr, "no usable certificate in %s\n", bundle.c_str());
        return 1;
    }
    char pattern[] = "/tmp/foundation-bench-memory-XXXXXX";
    const char* directory = mkdtemp(pattern);
    if (directory == nullptr) return 1;
    const std::string path = std::string(directory) + "/accepted.pem";
    std::ofstream(path, std::ios::binary) << accepted;

    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    std::map<std::string, Sample> medians;
    bool ok = true;
    for (const char* mode : {"baseline", "raw", "library"}) {
        std::vector<std::size_t> heaps;
        std::vector<long> rss, peaks;
        Sample sample;
        for (int run = 0; run < kRuns && ok; ++run) {
            ok = runChild(self, mode, path, sample);
            heaps.push_back(sample.heap);
            rss.push_back(sample.rss);
            peaks.push_back(sample.peak);
        }
        if (!ok) {
            std::fprintf(stderr, "the %s child failed\n", mode);
            break;
        }
        medians[mode] = Sample{sample.count, median(heaps), median(rss), median(peaks)};
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    if (!ok) return 1;

    // One run: heap in use does not vary between runs, and a run takes seconds.
    std::size_t entries = 0, bytes = 0;
    FILE* pipe = popen(("'" + self + "' --cache-child").c_str(), "r");
    ok = pipe != nullptr && std::fscanf(pipe, "%zu %zu", &entries, &bytes) == 2 && entries > 0;
    if (pipe != nullptr) ok = pclose(pipe) == 0 && ok;
    if (!ok) {
        std::fprintf(stderr, "the signature cache child failed\n");
        return 1;
    }

    const Sample& base = medians["baseline"];
    const Sample& raw = medians["raw"];
    const Sample& library = medians["library"];
    std::printf(
        "{\"bundle\": \"%s\", \"bundle_certificates\": %zu, \"certificates\": %zu,\n"
        " \"raw_certificates\": %zu, \"library_certificates\": %zu,\n"
        " \"heap_raw_bytes\": %zu, \"heap_library_bytes\": %zu,\n"
        " \"rss_raw_kib\": %ld, \"rss_library_kib\": %ld,\n"
        " \"peak_rss_baseline_kib\": %ld, \"peak_rss_raw_kib\": %ld, "
        "\"peak_rss_library_kib\": %ld,\n"
        " \"target\": 1.2,\n"
        " \"signature_cache_entries\": %zu, \"signature_cache_bytes_per_entry\": %.1f,\n"
        " \"signature_cache_target_bytes\": 200}\n",
        bundle.c_str(), total, pemBlocks(accepted).size(), raw.count, library.count, raw.heap,
        library.heap, raw.rss, library.rss, base.peak, raw.peak, library.peak, entries,
        static_cast<double>(bytes) / static_cast<double>(entries));
    return 0;
}
