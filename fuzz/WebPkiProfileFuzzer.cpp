// Arbitrary DER as the certificates of a path: the profile's rules read every extension of
// attacker-chosen certificates, and must answer without crashing, leaking or hanging. The first
// byte says where the input splits into a leaf and an issuer.
#include "WebPkiProfile.hpp"

#include <openssl/x509.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

namespace {

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};

std::unique_ptr<X509, X509Free> parse(const std::uint8_t* data, std::size_t size) {
    const unsigned char* cursor = data;
    return std::unique_ptr<X509, X509Free>(d2i_X509(nullptr, &cursor, static_cast<long>(size)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::size_t split = std::min<std::size_t>(size - 1, data[0] * 16u);
    const auto whole = parse(data + 1, size - 1);
    const auto first = parse(data + 1, split);
    const auto second = parse(data + 1 + split, size - 1 - split);

    namespace detail = foundation::certificates::detail;
    detail::ProfileFacts facts;
    facts.time = std::time(nullptr);
    if (whole) detail::checkWebPkiProfile({whole.get()}, facts);
    if (first && second) {
        detail::checkWebPkiProfile({first.get(), second.get()}, facts);
        detail::checkWebPkiProfile({second.get(), first.get(), second.get()}, facts);
    }
    return 0;
}
