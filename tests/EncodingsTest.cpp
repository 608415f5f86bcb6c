#include "support/Expectations.hpp"

#include <foundation/certificates/Encodings.hpp>
#include <foundation/certificates/Exceptions.hpp>

#include <boost/archive/iterators/dataflow_exception.hpp>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <iomanip>
#include <sstream>

namespace fc = foundation::certificates;
using fc::ByteArray;

namespace {

struct Base64Case {
    std::string text;
    ByteArray bytes;
};

class Base64RoundTrip : public ::testing::TestWithParam<Base64Case> {};

TEST_P(Base64RoundTrip, EncodesAndDecodes) {
    EXPECT_EQ(fc::base64Encode(GetParam().bytes), GetParam().text);
    EXPECT_EQ(fc::base64Decode(GetParam().text), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(Encodings, Base64RoundTrip,
                         ::testing::Values(Base64Case{"", {}}, Base64Case{"TQ==", {0x4d}},
                                           Base64Case{"TWE=", {0x4d, 0x61}},
                                           Base64Case{"TWFu", {0x4d, 0x61, 0x6e}},
                                           Base64Case{"AP8A/w==", {0x00, 0xff, 0x00, 0xff}}));

// OpenSSL's encoder is an independent oracle for every length and byte value.
TEST(Base64, MatchesOpenSSLForRandomInputs) {
    for (int size = 1; size < 300; size += 7) {
        ByteArray bytes(static_cast<std::size_t>(size));
        ASSERT_EQ(RAND_bytes(bytes.data(), size), 1);
        std::string expected(static_cast<std::size_t>(4 * ((size + 2) / 3)) + 1, '\0');
        const int length =
            EVP_EncodeBlock(reinterpret_cast<unsigned char*>(expected.data()), bytes.data(), size);
        expected.resize(static_cast<std::size_t>(length));

        const std::string text = fc::base64Encode(bytes);
        EXPECT_EQ(text, expected) << "size " << size;
        EXPECT_EQ(fc::base64Decode(text), bytes) << "size " << size;
    }
}

TEST(Base64, EncodingNeverBreaksLines) {
    const std::string text = fc::base64Encode(ByteArray(3000, 0xab));
    EXPECT_EQ(text.size(), 4000u);
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

struct LenientDecodeCase {
    std::string text;
    ByteArray bytes;
};

class Base64LenientDecode : public ::testing::TestWithParam<LenientDecodeCase> {};

// Every "=" counts as padding wherever it stands, and the same number of characters is cut from
// the end; a "=" inside the decoded part reads as 'A'.
TEST_P(Base64LenientDecode, Decodes) {
    EXPECT_EQ(fc::base64Decode(GetParam().text), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Encodings, Base64LenientDecode,
    ::testing::Values(LenientDecodeCase{"TW=u", {0x4d, 0x60}},         // '=' counted, last char cut
                      LenientDecodeCase{"TWE", {0x4d, 0x61}},          // unpadded 4k+3
                      LenientDecodeCase{"TQ", {0x4d}},                 // unpadded 4k+2
                      LenientDecodeCase{"TWFuT", {0x4d, 0x61, 0x6e}},  // 4k+1: six bits dropped
                      LenientDecodeCase{"====", {}}, LenientDecodeCase{"A=AA", {0x00, 0x00}}));

class Base64Rejects : public ::testing::TestWithParam<std::string> {};

TEST_P(Base64Rejects, CharactersOutsideTheAlphabet) {
    EXPECT_THROW_MSG(fc::base64Decode(GetParam()), boost::archive::iterators::dataflow_exception,
                     "attempt to decode a value not in base64 char set");
}

INSTANTIATE_TEST_SUITE_P(Encodings, Base64Rejects,
                         ::testing::Values("TW Fu", "TWFu\n", "TW-u", "TW_u", "TWF\x80",
                                           "TWFu!",  // the unread sixth-bit character counts too
                                           std::string("TW\0u", 4)));

TEST(Base64, RejectionIsNotACertificateException) {
    try {
        fc::base64Decode("TW Fu");
        FAIL() << "no exception";
    } catch (const fc::CertificateException&) {
        FAIL() << "must not be a CertificateException";
    } catch (const std::exception&) {
    }
}

TEST(Hex, EncodesLowerCase) {
    EXPECT_EQ(fc::hexEncode({}), "");
    EXPECT_EQ(fc::hexEncode({0x00, 0xab, 0xff}), "00abff");
    EXPECT_EQ(fc::hexEncode(ByteArray(32, 0x5a)).size(), 64u);
}

TEST(Hex, DecodesBothCases) {
    EXPECT_EQ(fc::hexDecode(""), ByteArray{});
    EXPECT_EQ(fc::hexDecode("00abFF"), (ByteArray{0x00, 0xab, 0xff}));
    EXPECT_EQ(fc::hexDecode("0123456789abcdefABCDEF"),
              (ByteArray{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0xab, 0xcd, 0xef}));
}

TEST(Hex, RejectsMalformedText) {
    EXPECT_THROW_MSG(fc::hexDecode("abc"), fc::InvalidArgument,
                     "Input string is invalid for hex decoding. It has odd number of characters.");
    // The length is checked before any character is looked at.
    EXPECT_THROW_MSG(fc::hexDecode("zzz"), fc::InvalidArgument,
                     "Input string is invalid for hex decoding. It has odd number of characters.");
    for (const std::string text : {"zz", "0g", "g0", " 0", "0x", "+1", "ab-1"}) {
        EXPECT_THROW_MSG(fc::hexDecode(text), fc::InvalidArgument,
                         "Input string contains characters which are not in Hex.");
    }
}

TEST(PrettyPrintBytes, WritesLabelAndEveryByte) {
    std::ostringstream out;
    fc::prettyPrintBytes({0x30, 0x0a}, "Bytes:", out);
    EXPECT_EQ(out.str(), "Bytes: 0x30 0x0a \n");
}

TEST(PrettyPrintBytes, EmptyInputAndLabelWriteOnlyANewline) {
    std::ostringstream out;
    fc::prettyPrintBytes({}, "", out);
    EXPECT_EQ(out.str(), "\n");
}

TEST(PrettyPrintBytes, TrustStoreLabelGivesTwoBlanks) {
    std::ostringstream out;
    fc::prettyPrintBytes({0x01, 0x02}, "\nCert Bytes = ", out);
    EXPECT_EQ(out.str(), "\nCert Bytes =  0x01 0x02 \n");
}

TEST(PrettyPrintBytes, RestoresTheStreamsFormatting) {
    std::ostringstream out;
    out << std::dec << std::uppercase << std::showbase << std::setfill('*');
    fc::prettyPrintBytes({0xab}, "", out);
    EXPECT_EQ(out.str(), "0xab \n");  // lower case, no stream base prefix
    out.str("");
    out << std::setw(4) << 255;
    EXPECT_EQ(out.str(), "*255");
    EXPECT_TRUE(out.flags() & std::ios_base::uppercase);
    EXPECT_TRUE(out.flags() & std::ios_base::showbase);
}

}  // namespace
