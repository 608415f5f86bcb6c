// Where systems without per-user trust settings keep their trusted certificates, searched in
// this order, the first that holds a certificate block winning:
//   1. the file named by SSL_CERT_FILE;
//   2. the directories named by SSL_CERT_DIR (colon-separated; hashed or not);
//   3. the bundles of the major distributions;
//   4. OpenSSL's built-in default file, then its default directory.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace foundation::certificates::detail {

struct TrustFile {
    std::size_t source = 0;  // index into TrustSourceContents::sources
    std::string text;

    bool operator==(const TrustFile& other) const {
        return source == other.source && text == other.text;
    }
};

// What the winning source held when it was read: nothing at all when no source holds a
// certificate block.
struct TrustSourceContents {
    std::vector<std::string> sources;  // the files and directories read, in search order
    std::vector<TrustFile> files;      // their files that hold certificate blocks, in order

    bool operator==(const TrustSourceContents& other) const {
        return sources == other.sources && files == other.files;
    }
    bool operator!=(const TrustSourceContents& other) const { return !(*this == other); }
};

// Reads the sources afresh. Files that cannot be read, are not regular files or hold no
// certificate block are passed over, never reported as errors.
TrustSourceContents readTrustSources();

// For tests only: the built-in locations (3 and 4 above) are looked up below this directory
// instead of "/". An empty string restores "/".
void setTrustSourceRootForTesting(const std::string& root);

}  // namespace foundation::certificates::detail
