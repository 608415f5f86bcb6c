#include <foundation/certificates/Encodings.hpp>

#include <foundation/certificates/Exceptions.hpp>

#include <openssl/evp.h>

#include <boost/archive/iterators/binary_from_base64.hpp>
#include <boost/archive/iterators/transform_width.hpp>

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace foundation::certificates {

namespace {

namespace iterators = boost::archive::iterators;

using Base64Decoder = iterators::transform_width<iterators::binary_from_base64<const char*>, 8, 6>;

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string base64Encode(const ByteArray& bytes) {
    // OpenSSL's block encoder writes the same standard alphabet and padding, several times
    // faster than the dataflow iterators; decoding keeps the iterators for their error rule.
    constexpr std::size_t kChunk = 3 * 1024 * 1024;  // whole groups, well within int
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    std::size_t written = 0;
    for (std::size_t offset = 0; offset < bytes.size(); offset += kChunk) {
        const std::size_t length = std::min(kChunk, bytes.size() - offset);
        written += static_cast<std::size_t>(
            EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[written]), bytes.data() + offset,
                            static_cast<int>(length)));
    }
    text.resize(written);
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
