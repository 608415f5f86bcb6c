// Reading one HTTP response as it arrives, under a limit on the body's size.
//
// No I/O here: the caller feeds whatever the connection delivered and learns whether the
// response is complete, needs more, or failed (with the failure's download message). The body
// never grows past the limit: a declared length or chunk that would pass it fails before any of
// its bytes are kept.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::certificates::detail {

class HttpResponseReader {
  public:
    enum class Progress { NeedMore, Complete, Failed };

    // maxBodyBytes 0: no limit on the body (the header section is always limited).
    explicit HttpResponseReader(std::size_t maxBodyBytes);

    // Takes every byte given; bytes after the end of the response are ignored. A response
    // whose status is not 200 is complete with its header section: its body is never read.
    Progress feed(const char* data, std::size_t size);
    // The peer closed the connection: completes a body that runs until the close, fails a
    // response cut short.
    Progress finish();

    Progress progress() const { return progress_; }
    unsigned status() const { return status_; }
    // The first header of that name, compared without regard to case, with its value trimmed.
    std::optional<std::string> header(std::string_view name) const;
    // Empty after a failure.
    const std::string& body() const { return body_; }
    std::string takeBody() { return std::move(body_); }
    // The download message of the failure.
    const std::string& failure() const { return failure_; }

  private:
    enum class Stage { StatusLine, Headers, Body, ChunkSize, ChunkData, ChunkEnd, Trailers, Done };

    Progress fail(std::string message);
    Progress complete();
    // Consumes one line (without its CR LF) from the input, buffering a partial one.
    bool takeLine(const char*& data, const char* end, std::string& line);
    Progress onLine(const std::string& line);
    Progress startBody();
    Progress onChunkSize(const std::string& line);
    bool admit(std::size_t bytes);

    std::size_t maxBodyBytes_;
    Stage stage_ = Stage::StatusLine;
    Progress progress_ = Progress::NeedMore;
    std::string partialLine_;
    std::size_t headerBytes_ = 0;
    unsigned status_ = 0;
    std::vector<std::pair<std::string, std::string>> headers_;
    std::optional<std::size_t> remaining_;  // of a declared length or the current chunk
    std::string body_;
    std::string failure_;
};

}  // namespace foundation::certificates::detail
