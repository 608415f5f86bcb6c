// Arbitrary text into the decoders: only their documented exceptions may come out, and whatever
// decodes must encode back to text that decodes to the same bytes.
#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>

#include <boost/archive/iterators/dataflow_exception.hpp>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace fc = foundation::certificates;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const fc::ByteArray bytes = fc::base64Decode(text);
        if (fc::base64Decode(fc::base64Encode(bytes)) != bytes) std::abort();
    } catch (const boost::archive::iterators::dataflow_exception&) {
    }
    try {
        const fc::ByteArray bytes = fc::hexDecode(text);
        if (fc::hexDecode(fc::hexEncode(bytes)) != bytes) std::abort();
        if (fc::hexEncode(bytes).size() != text.size()) std::abort();
    } catch (const fc::InvalidArgument&) {
    }
    return 0;
}
