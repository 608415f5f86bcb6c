#include "Arguments.hpp"

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace certinfo {

Arguments::Arguments(const std::vector<std::string>& words,
                     const std::set<std::string>& valueOptions,
                     const std::set<std::string>& flags) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
            const std::string name = word.substr(2);
            if (valueOptions.count(name) != 0) {
                if (i + 1 >= words.size()) throw UsageError("option --" + name + " needs a value");
                values_[name].push_back(words[++i]);
            } else if (flags.count(name) != 0) {
                flags_.insert(name);
            } else {
                throw UsageError("unknown option --" + name);
            }
        } else {
            positional_.push_back(word);
        }
    }
}

const std::string& Arguments::positional(std::size_t index, const char* what) const {
    if (index >= positional_.size()) throw UsageError(std::string("missing ") + what);
    return positional_[index];
}

void Arguments::expectPositionalCount(std::size_t minimum, std::size_t maximum) const {
    if (positional_.size() < minimum) throw UsageError("too few arguments");
    if (positional_.size() > maximum) throw UsageError("too many arguments");
}

std::optional<std::string> Arguments::value(const std::string& name) const {
    const auto it = values_.find(name);
    if (it == values_.end()) return std::nullopt;
    return it->second.back();
}

std::vector<std::string> Arguments::values(const std::string& name) const {
    const auto it = values_.find(name);
    return it != values_.end() ? it->second : std::vector<std::string>();
}

std::string readInput(const std::string& path) {
    if (path == "-") {
        return std::string(std::istreambuf_iterator<char>(std::cin), {});
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot open " + path);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

}  // namespace certinfo
