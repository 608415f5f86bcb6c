// Byte encodings: base64, lower-case hex, and a diagnostic dump of bytes.
#pragma once

#include <foundation/certificates/Export.hpp>
#include <foundation/certificates/Types.hpp>

#include <iosfwd>
#include <string>

namespace foundation::certificates {

// Standard base64 with "=" padding, on one line (no line breaks at any length).
FOUNDATION_CERTIFICATES_EXPORT std::string base64Encode(const ByteArray& bytes);

// Decodes standard base64. Every "=" in the text counts as padding and that many characters are
// dropped from the end; a "=" before that decodes as zero bits. Leftover bits that do not fill a
// byte are dropped. Any character outside the alphabet (blanks and line breaks included) throws
// boost::archive::iterators::dataflow_exception, a std::exception whose what() is
// "attempt to decode a value not in base64 char set" (not a CertificateException).
FOUNDATION_CERTIFICATES_EXPORT ByteArray base64Decode(const std::string& text);

// Two lower-case hex digits per byte, no separators.
FOUNDATION_CERTIFICATES_EXPORT std::string hexEncode(const ByteArray& bytes);

// Accepts upper- and lower-case digits. Throws InvalidArgument for an odd length or a character
// that is not a hex digit.
FOUNDATION_CERTIFICATES_EXPORT ByteArray hexDecode(const std::string& text);

// Writes the label and a blank (when the label is not empty), then "0x" and two hex digits and a
// blank per byte, then a newline. The stream's formatting state is restored afterwards.
FOUNDATION_CERTIFICATES_EXPORT void prettyPrintBytes(const ByteArray& bytes,
                                                     const std::string& label, std::ostream& os);

}  // namespace foundation::certificates
