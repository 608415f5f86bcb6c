#include "Commands.hpp"

#include <foundation/certificates/Encodings.hpp>

#include <iostream>

namespace certinfo {

namespace fc = foundation::certificates;

namespace {

bool isBase64(const std::string& format) {
    if (format == "base64") return true;
    if (format == "hex") return false;
    throw UsageError("unknown format '" + format + "' (base64 or hex)");
}

std::string withoutTrailingNewlines(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

}  // namespace

int runEncode(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {}, {});
    args.expectPositionalCount(1, 2);
    const bool base64 = isBase64(args.positional(0, "format"));
    const std::string input = readInput(args.positional().size() > 1 ? args.positional()[1] : "-");
    const fc::ByteArray bytes(input.begin(), input.end());
    out << (base64 ? fc::base64Encode(bytes) : fc::hexEncode(bytes)) << '\n';
    return kExitOk;
}

int runDecode(const std::vector<std::string>& words, std::ostream& out) {
    const Arguments args(words, {}, {});
    args.expectPositionalCount(1, 2);
    const bool base64 = isBase64(args.positional(0, "format"));
    const std::string text = withoutTrailingNewlines(
        readInput(args.positional().size() > 1 ? args.positional()[1] : "-"));
    const fc::ByteArray bytes = base64 ? fc::base64Decode(text) : fc::hexDecode(text);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    return kExitOk;
}

}  // namespace certinfo
