#include "HttpResponseReader.hpp"

#include "CrlMessages.hpp"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>

namespace foundation::certificates::detail {

namespace {

// Enough for any honest server; a peer sending more headers than this is stalling.
constexpr std::size_t kMaxHeaderBytes = 64 * 1024;
constexpr std::size_t kMaxChunkLine = 1024;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

// Digits only, and no overflow.
std::optional<std::size_t> parseNumber(std::string_view text, int base) {
    if (text.empty()) return std::nullopt;
    std::size_t value = 0;
    for (const char c : text) {
        int digit = 0;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (base == 16 && std::isxdigit(static_cast<unsigned char>(c))) {
            digit = std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        } else {
            return std::nullopt;
        }
        if (value > (std::numeric_limits<std::size_t>::max() - static_cast<std::size_t>(digit)) /
                        static_cast<std::size_t>(base)) {
            return std::nullopt;
        }
        value = value * static_cast<std::size_t>(base) + static_cast<std::size_t>(digit);
    }
    return value;
}

}  // namespace

HttpResponseReader::HttpResponseReader(std::size_t maxBodyBytes) : maxBodyBytes_(maxBodyBytes) {}

HttpResponseReader::Progress HttpResponseReader::fail(std::string message) {
    stage_ = Stage::Done;
    failure_ = std::move(message);
    std::string().swap(body_);  // a failed response has no body
    return progress_ = Progress::Failed;
}

HttpResponseReader::Progress HttpResponseReader::complete() {
    stage_ = Stage::Done;
    return progress_ = Progress::Complete;
}

bool HttpResponseReader::admit(std::size_t bytes) {
    return maxBodyBytes_ == 0 || bytes <= maxBodyBytes_ - body_.size();
}

bool HttpResponseReader::takeLine(const char*& data, const char* end, std::string& line) {
    const char* newline = static_cast<const char*>(std::memchr(data, '\n', end - data));
    if (newline == nullptr) {
        partialLine_.append(data, end);
        data = end;
        return false;
    }
    line = std::move(partialLine_);
    line.append(data, newline);
    partialLine_.clear();
    data = newline + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

HttpResponseReader::Progress HttpResponseReader::feed(const char* data, std::size_t size) {
    const char* end = data + size;
    while (data < end && progress_ == Progress::NeedMore) {
        if (stage_ != Stage::Body && stage_ != Stage::ChunkData) {
            std::string line;
            const bool whole = takeLine(data, end, line);
            // A CR still waiting for its LF is not part of the line.
            const std::size_t length =
                whole ? line.size()
                      : partialLine_.size() -
                            (!partialLine_.empty() && partialLine_.back() == '\r' ? 1 : 0);
            const bool chunkLine = stage_ == Stage::ChunkSize || stage_ == Stage::ChunkEnd;
            if (chunkLine && length > kMaxChunkLine) return fail(crlmessage::kBadChunk);
            if (!chunkLine && headerBytes_ + length > kMaxHeaderBytes) {
                return fail(crlmessage::wrapped(crlmessage::kInvalidResponse));
            }
            if (whole) onLine(line);
            continue;
        }
        const std::size_t available = static_cast<std::size_t>(end - data);
        const std::size_t take = remaining_ ? std::min(available, *remaining_) : available;
        if (stage_ == Stage::Body && !remaining_ && !admit(take)) {
            return fail(crlmessage::kTooLarge);
        }
        body_.append(data, take);
        data += take;
        if (!remaining_) continue;
        *remaining_ -= take;
        if (*remaining_ != 0) continue;
        if (stage_ == Stage::Body) return complete();
        stage_ = Stage::ChunkEnd;
    }
    return progress_;
}

HttpResponseReader::Progress HttpResponseReader::finish() {
    if (progress_ != Progress::NeedMore) return progress_;
    switch (stage_) {
        case Stage::StatusLine:
        case Stage::Headers:
            return fail(crlmessage::wrapped(crlmessage::kInvalidResponse));
        case Stage::Body:
            if (!remaining_) return complete();
            return fail(crlmessage::kEndedEarly);
        case Stage::Trailers:
            return complete();  // the last chunk arrived; only the closing line is missing
        default:
            return fail(crlmessage::kEndedEarly);
    }
}

HttpResponseReader::Progress HttpResponseReader::onLine(const std::string& line) {
    switch (stage_) {
        case Stage::StatusLine: {
            headerBytes_ += line.size() + 2;
            const std::string_view text(line);
            const std::size_t space = text.find(' ');
            if (text.compare(0, 5, "HTTP/") != 0 || space == std::string_view::npos) {
                return fail(crlmessage::wrapped(crlmessage::kInvalidResponse));
            }
            const std::string_view rest = trimmed(text.substr(space));
            const std::optional<std::size_t> code = parseNumber(rest.substr(0, 3), 10);
            if (!code || rest.size() < 3 || (rest.size() > 3 && rest[3] != ' ')) {
                return fail(crlmessage::wrapped(crlmessage::kInvalidResponse));
            }
            status_ = static_cast<unsigned>(*code);
            stage_ = Stage::Headers;
            return progress_;
        }
        case Stage::Headers: {
            headerBytes_ += line.size() + 2;
            if (line.empty()) return status_ == 200 ? startBody() : complete();
            const std::size_t colon = line.find(':');
            // Folded continuation lines and lines without a name carry nothing needed here.
            if (colon != std::string::npos && colon != 0 && line[0] != ' ' && line[0] != '\t') {
                headers_.emplace_back(
                    line.substr(0, colon),
                    std::string(trimmed(std::string_view(line).substr(colon + 1))));
            }
            return progress_;
        }
        case Stage::ChunkSize:
            return onChunkSize(line);
        case Stage::ChunkEnd:
            if (!line.empty()) return fail(crlmessage::kBadChunk);
            stage_ = Stage::ChunkSize;
            return progress_;
        case Stage::Trailers:
            headerBytes_ += line.size() + 2;
            return line.empty() ? complete() : progress_;
        default:
            return progress_;
    }
}

HttpResponseReader::Progress HttpResponseReader::startBody() {
    const std::optional<std::string> encoding = header("Transfer-Encoding");
    if (encoding) {
        std::string lower(*encoding);
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (lower.find("chunked") != std::string::npos) {
            stage_ = Stage::ChunkSize;
            return progress_;
        }
    }
    if (const std::optional<std::string> declared = header("Content-Length")) {
        const std::optional<std::size_t> length = parseNumber(*declared, 10);
        if (!length) return fail(crlmessage::wrapped(crlmessage::kInvalidResponse));
        if (!admit(*length)) return fail(crlmessage::kTooLarge);
        if (*length == 0) return complete();
        remaining_ = *length;
    }
    stage_ = Stage::Body;
    return progress_;
}

HttpResponseReader::Progress HttpResponseReader::onChunkSize(const std::string& line) {
    std::string_view size(line);
    size = trimmed(size.substr(0, size.find(';')));  // chunk extensions are ignored
    const std::optional<std::size_t> length = parseNumber(size, 16);
    if (!length) return fail(crlmessage::kBadChunk);
    if (*length == 0) {
        stage_ = Stage::Trailers;
        return progress_;
    }
    if (!admit(*length)) return fail(crlmessage::kTooLarge);
    remaining_ = *length;
    stage_ = Stage::ChunkData;
    return progress_;
}

std::optional<std::string> HttpResponseReader::header(std::string_view name) const {
    for (const auto& [key, value] : headers_) {
        if (equalsIgnoringCase(key, name)) return value;
    }
    return std::nullopt;
}

}  // namespace foundation::certificates::detail
