// Arbitrary bytes as a revocation list server's answer, delivered in arbitrary pieces. The first
// two bytes set the body limit and the size of the pieces. Whatever arrives, the body never
// passes the limit, a failure always says why, and the outcome does not depend on the pieces.
#include "HttpResponseReader.hpp"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using foundation::certificates::detail::HttpResponseReader;

HttpResponseReader read(const char* data, std::size_t size, std::size_t cap, std::size_t step) {
    HttpResponseReader reader(cap);
    for (std::size_t at = 0; at < size; at += step) {
        reader.feed(data + at, std::min(step, size - at));
    }
    reader.finish();
    return reader;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t cap = data[0] * 16u;
    const std::size_t step = data[1] % 32u + 1;
    const char* response = reinterpret_cast<const char*>(data + 2);
    const std::size_t length = size - 2;

    const HttpResponseReader pieces = read(response, length, cap, step);
    const HttpResponseReader whole = read(response, length, cap, length == 0 ? 1 : length);
    if (pieces.progress() == HttpResponseReader::Progress::NeedMore) std::abort();
    if (pieces.progress() != whole.progress() || pieces.status() != whole.status() ||
        pieces.body() != whole.body() || pieces.failure() != whole.failure()) {
        std::abort();
    }
    if (cap != 0 && pieces.body().size() > cap) std::abort();
    if ((pieces.progress() == HttpResponseReader::Progress::Failed) == pieces.failure().empty()) {
        std::abort();
    }
    return 0;
}
