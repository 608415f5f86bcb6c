// The benchmark program: makes the inputs, registers every row, runs Google Benchmark.
#include "BenchSupport.hpp"

#include <openssl/provider.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>

int main(int argc, char** argv) {
    // Both providers from the start, for every benchmark alike: the library loads the legacy
    // one at its first PKCS#12 open, and legacy containers need it on the raw side too.
    OSSL_PROVIDER* defaultProvider = OSSL_PROVIDER_load(nullptr, "default");
    OSSL_PROVIDER* legacyProvider = OSSL_PROVIDER_load(nullptr, "legacy");
    if (defaultProvider == nullptr || legacyProvider == nullptr) {
        std::fprintf(stderr, "cannot load the OpenSSL default and legacy providers\n");
        return 1;
    }

    char pattern[] = "/tmp/foundation-bench-XXXXXX";
    const char* workDirectory = mkdtemp(pattern);
    if (workDirectory == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }

    int status = 0;
    try {
        bench::createInputs(workDirectory);
        bench::registerCertificateBenchmarks();
        bench::registerStoreBenchmarks();
        bench::registerContainerBenchmarks();
        bench::registerSignatureCacheBenchmarks();
        bench::registerRevocationBenchmarks();

        benchmark::Initialize(&argc, argv);
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
            status = 1;
        } else {
            benchmark::RunSpecifiedBenchmarks();
        }
        benchmark::Shutdown();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        status = 1;
    }
    bench::destroyInputs();
    std::error_code ignored;
    std::filesystem::remove_all(workDirectory, ignored);
    OSSL_PROVIDER_unload(legacyProvider);
    OSSL_PROVIDER_unload(defaultProvider);
    return status;
}
