#pragma once

#include <string>
#include <vector>

namespace testsupport {

// Files this process made with mkstemp under the prefix that still exist.
std::vector<std::string> leftoverTemporaryFiles(const std::string& prefix);

// How many files this process has made with mkstemp under the prefix.
std::size_t temporaryFilesCreated(const std::string& prefix);

}  // namespace testsupport
