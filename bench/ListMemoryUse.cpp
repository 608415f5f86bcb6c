// Memory of a CertificateRevocationList of a million entries against d2i_X509_CRL of the same
// bytes.
//
// As in foundation_bench_memory, each side runs in a fresh process of its own (this program
// started again with --child) and reports its heap in use and its resident high-water mark; a
// baseline child reads the list and parses nothing. The parent prints one JSON object.
//
//   foundation_bench_list_memory [entries]     (default 1000000)
#include "BundleFiles.hpp"
#include "LargeList.hpp"

#include <foundation/certificates/CertificateRevocationList.hpp>

#include <openssl/x509.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <map>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fc = foundation::certificates;

constexpr int kRuns = 3;  // children per side; the median is reported

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
    const std::string text = bench::readFile(path);
    const fc::ByteArray der(text.begin(), text.end());

    // The same warm-up in every mode: OpenSSL's decoders and the library's first load.
    {
        const fc::ByteArray small = bench::makeLargeList(10);
        const unsigned char* cursor = small.data();
        X509_CRL_free(d2i_X509_CRL(nullptr, &cursor, static_cast<long>(small.size())));
        const fc::CertificateRevocationList warm(small);
    }

    const std::size_t heapBefore = heapInUse();
    std::size_t entries = 0;
    X509_CRL* raw = nullptr;
    std::unique_ptr<fc::CertificateRevocationList> library;
    if (mode == "raw") {
        const unsigned char* cursor = der.data();
        raw = d2i_X509_CRL(nullptr, &cursor, static_cast<long>(der.size()));
        if (raw == nullptr) return 2;
        entries = static_cast<std::size_t>(sk_X509_REVOKED_num(X509_CRL_get_REVOKED(raw)));
    } else if (mode == "library") {
        library = std::make_unique<fc::CertificateRevocationList>(der);
        entries = library->empty() ? 0 : 1;
    } else if (mode != "baseline") {
        return 2;
    }
    const std::size_t heapAfter = heapInUse();
    std::printf("%zu %zu %ld\n", entries, heapAfter - heapBefore, statusField("VmHWM:"));
    X509_CRL_free(raw);
    return 0;
}

struct Sample {
    std::size_t entries = 0;
    std::size_t heap = 0;
    long peak = 0;
};

bool runChild(const std::string& self, const std::string& mode, const std::string& path,
              Sample& sample) {
    const std::string command = "'" + self + "' --child " + mode + " '" + path + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return false;
    const int read = std::fscanf(pipe, "%zu %zu %ld", &sample.entries, &sample.heap, &sample.peak);
    const int status = pclose(pipe);
    return read == 3 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

template <typename T>
T median(std::vector<T> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--child") return child(argv[2], argv[3]);
    const std::size_t entries = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1000000;

    char pattern[] = "/tmp/foundation-bench-list-XXXXXX";
    const char* directory = mkdtemp(pattern);
    if (directory == nullptr) return 1;
    const std::string path = std::string(directory) + "/list.der";
    {
        const fc::ByteArray der = bench::makeLargeList(entries);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(der.data()), static_cast<long>(der.size()));
    }

    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    std::map<std::string, Sample> medians;
    bool ok = true;
    for (const char* mode : {"baseline", "raw", "library"}) {
        std::vector<std::size_t> heaps;
        std::vector<long> peaks;
        Sample sample;
        for (int run = 0; run < kRuns && ok; ++run) {
            ok = runChild(self, mode, path, sample);
            heaps.push_back(sample.heap);
            peaks.push_back(sample.peak);
        }
        if (!ok) {
            std::fprintf(stderr, "the %s child failed\n", mode);
            break;
        }
        medians[mode] = Sample{sample.entries, median(heaps), median(peaks)};
    }
    const auto bytes = std::filesystem::file_size(path);
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    if (!ok) return 1;

    std::printf(
        "{\"entries\": %zu, \"list_bytes\": %ju,\n"
        " \"raw_entries\": %zu, \"library_loaded\": %zu,\n"
        " \"heap_raw_bytes\": %zu, \"heap_library_bytes\": %zu,\n"
        " \"peak_rss_baseline_kib\": %ld, \"peak_rss_raw_kib\": %ld, "
        "\"peak_rss_library_kib\": %ld,\n"
        " \"target\": 1.1}\n",
        entries, static_cast<std::uintmax_t>(bytes), medians["raw"].entries,
        medians["library"].entries, medians["raw"].heap, medians["library"].heap,
        medians["baseline"].peak, medians["raw"].peak, medians["library"].peak);
    return 0;
}
