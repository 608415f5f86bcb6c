// Command-line arguments of certinfo: positional words and "--name value" / "--flag" options.
#pragma once

#include <charconv>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace certinfo {

// A usage mistake: reported with the command's synopsis, exit code 2.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Arguments {
  public:
    // valueOptions name the options that take a value; every other "--x" is a flag.
    Arguments(const std::vector<std::string>& words, const std::set<std::string>& valueOptions,
              const std::set<std::string>& flags);

    const std::vector<std::string>& positional() const { return positional_; }
    const std::string& positional(std::size_t index, const char* what) const;
    void expectPositionalCount(std::size_t minimum, std::size_t maximum) const;

    bool flag(const std::string& name) const { return flags_.count(name) != 0; }
    // The last value given for the option; values() has every one, in order.
    std::optional<std::string> value(const std::string& name) const;
    std::vector<std::string> values(const std::string& name) const;
    // The option's last value as a whole number; UsageError when it is none or out of range.
    template <typename Number>
    std::optional<Number> number(const std::string& name) const {
        const std::optional<std::string> text = value(name);
        if (!text) return std::nullopt;
        Number parsed{};
        const char* end = text->data() + text->size();
        const auto [stop, error] = std::from_chars(text->data(), end, parsed);
        if (error != std::errc() || stop != end || text->empty()) {
            throw UsageError("--" + name + " needs a number in range, not '" + *text + "'");
        }
        return parsed;
    }

  private:
    std::vector<std::string> positional_;
    std::set<std::string> flags_;
    std::map<std::string, std::vector<std::string>> values_;
};

// The option's value as a number; UsageError when it is not one in range.
template <typename Number>
std::optional<Number> numberOption(const Arguments& args, const std::string& name) {
    const std::optional<std::string> text = args.value(name);
    if (!text) return std::nullopt;
    Number number{};
    const char* end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, number);
    if (error != std::errc() || stop != end || text->empty()) {
        throw UsageError("--" + name + " needs a number in range, not '" + *text + "'");
    }
    return number;
}

// Whole file (or standard input for "-") as bytes.
std::string readInput(const std::string& path);

}  // namespace certinfo
