#include <foundation/certificates/Encodings.hpp>

#include <foundation/certificates/Exceptions.hpp>

#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/binary_from_base64.hpp>
#include <boost/archive/iterators/transform_width.hpp>

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace foundation::certificates {

namespace {

namespace iterators = boost::archive::iterators;

using Base64Encoder =
    iterators::base64_from_binary<iterators::transform_width<const unsigned char*, 6, 8>>;
using Base64Decoder = iterators::transform_width<iterators::binary_from_base64<const char*>, 8, 6>;

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string base64Encode(const ByteArray& bytes) {
    if (bytes.empty()) return {};
    const std::size_t size = bytes.size();
    const std::size_t wholeGroups = size / 3;
    std::string text;
    text.reserve((size + 2) / 3 * 4);
    // The encoder reads one byte beyond its input to fill a final partial group, so whole
    // three-byte groups are encoded in place and the tail from a zero-padded copy.
    Base64Encoder it(bytes.data());
    for (std::size_t i = 0; i < wholeGroups * 4; ++i, ++it) text.push_back(*it);
    const std::size_t tail = size % 3;
    if (tail != 0) {
        unsigned char padded[3] = {0, 0, 0};
        std::copy(bytes.end() - static_cast<std::ptrdiff_t>(tail), bytes.end(), padded);
        Base64Encoder tailIt(padded);
        for (std::size_t i = 0; i < tail + 1; ++i, ++tailIt) text.push_back(*tailIt);
        text.append(3 - tail, '=');
    }
    return text;
}

ByteArray base64Decode(const std::string& text) {
    if (text.empty()) return {};
    const auto padding = static_cast<std::size_t>(std::count(text.begin(), text.end(), '='));
    const std::size_t length = text.size() > padding ? text.size() - padding : 0;
    const char* begin = text.data();

    ByteArray bytes;
    const std::size_t byteCount = length * 6 / 8;
    bytes.reserve(byteCount);
    // Producing exactly the whole bytes the characters hold keeps the decoder inside them.
    Base64Decoder it(begin);
    for (std::size_t i = 0; i < byteCount; ++i, ++it) bytes.push_back(*it);
    // 4k+1 characters: the last one carries only 6 bits and was never read. Its bits are dropped,
    // but it still has to be a base64 character.
    if (length % 4 == 1) {
        static_cast<void>(*iterators::binary_from_base64<const char*>(begin + length - 1));
    }
    return bytes;
}

std::string hexEncode(const ByteArray& bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text(bytes.size() * 2, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 0x0f];
    }
    return text;
}

ByteArray hexDecode(const std::string& text) {
    if (text.size() % 2 != 0) {
        throw InvalidArgument(
            "Input string is invalid for hex decoding. It has odd number of characters.");
    }
    ByteArray bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hexValue(text[i]);
        const int low = hexValue(text[i + 1]);
        if (high < 0 || low < 0) {
            throw InvalidArgument("Input string contains characters which are not in Hex.");
        }
        bytes.push_back(static_cast<unsigned char>(high << 4 | low));
    }
    return bytes;
}

void prettyPrintBytes(const ByteArray& bytes, const std::string& label, std::ostream& os) {
    if (!label.empty()) os << label << ' ';
    const std::ios_base::fmtflags flags = os.flags();
    const char fill = os.fill();
    os << std::hex << std::nouppercase << std::noshowbase;
    for (const unsigned char byte : bytes) {
        os << "0x" << std::setw(2) << std::setfill('0') << static_cast<unsigned>(byte) << ' ';
    }
    os.flags(flags);
    os.fill(fill);
    os << std::endl;
}

}  // namespace foundation::certificates
