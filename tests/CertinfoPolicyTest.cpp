// certinfo's policy options, run as a user would, on PKITS paths.
#include "support/Pkits.hpp"
#include "support/TestCertificates.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace {

namespace pkits = testsupport::pkits;

constexpr char kPolicy1[] = "2.16.840.1.101.3.2.1.48.1";
constexpr char kPolicy2[] = "2.16.840.1.101.3.2.1.48.2";

struct CommandRun {
    int exitCode;
    std::string output;  // stdout and stderr
};

// The case's anchor and intermediates as PEM files (certinfo reads PEM bundles), removed again
// when done.
class CaseFiles {
  public:
    explicit CaseFiles(const pkits::Case& c) {
        char pattern[] = "/tmp/certinfo_policy_XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        directory = pattern;
        write(trust(), {pkits::kTrustAnchor});
        write(chain(), c.intermediates);
        leaf = pkits::certificatePath(c.leaf);
    }
    ~CaseFiles() {
        std::remove(trust().c_str());
        std::remove(chain().c_str());
        rmdir(directory.c_str());
    }
    CaseFiles(const CaseFiles&) = delete;
    CaseFiles& operator=(const CaseFiles&) = delete;

    std::string trust() const { return directory + "/trust.pem"; }
    std::string chain() const { return directory + "/chain.pem"; }
    std::string leaf;

  private:
    void write(const std::string& path, const std::vector<std::string>& files) const {
        std::ofstream out(path);
        for (const std::string& file : files) {
            out << testsupport::toPEM(pkits::rawCertificate(file).get());
        }
    }
    std::string directory;
};

CommandRun certinfo(const std::string& arguments) {
    const std::string command = std::string(FOUNDATION_CERTINFO) + " " + arguments + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("popen failed");
    CommandRun run{-1, {}};
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        run.output.append(buffer, n);
    }
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

const pkits::Case& pkitsCase(const std::string& id) {
    for (const pkits::Case& c : pkits::cases()) {
        if (c.id == id) return c;
    }
    throw std::runtime_error("no PKITS case " + id);
}

struct VerifyRow {
    const char* id;
    std::string options;
    int exitCode;
    std::string expected;  // a line of the output
};

void PrintTo(const VerifyRow& row, std::ostream* out) { *out << row.id << ' ' << row.options; }

class CertinfoPolicyTest : public ::testing::TestWithParam<VerifyRow> {};

TEST_P(CertinfoPolicyTest, Verify) {
    const VerifyRow& row = GetParam();
    const CaseFiles files(pkitsCase(row.id));
    const CommandRun run =
        certinfo("verify " + files.leaf + " --chain " + files.chain() + " --trust " +
                 files.trust() + " --at 2012-01-01 " + row.options);
    EXPECT_EQ(run.exitCode, row.exitCode) << run.output;
    EXPECT_NE(run.output.find(row.expected + "\n"), std::string::npos) << run.output;
}

INSTANTIATE_TEST_SUITE_P(
    Flags, CertinfoPolicyTest,
    ::testing::Values(
        VerifyRow{"4.10.3", std::string("--policy ") + kPolicy2, 0,
                  std::string("Valid policies: ") + kPolicy2},
        VerifyRow{"4.10.3", std::string("--policy ") + kPolicy1, 1,
                  "Chain status: PolicyMismatch (10)"},
        VerifyRow{"4.8.1", std::string("--policy ") + kPolicy2 + " --policy " + kPolicy1, 0,
                  std::string("Valid policies: ") + kPolicy1},
        VerifyRow{"4.10.1", "--inhibit-policy-mapping", 1, "Chain status: PolicyMismatch (10)"},
        VerifyRow{"4.8.2", "", 0, "Chain status: Valid (0)"},
        VerifyRow{"4.8.2", "--require-explicit-policy", 1, "Chain status: PolicyMismatch (10)"},
        VerifyRow{"4.8.11", "--require-explicit-policy", 0, "Valid policies: 2.5.29.32.0"},
        VerifyRow{"4.8.11", "--inhibit-any-policy", 1, "Chain status: PolicyMismatch (10)"},
        VerifyRow{"4.8.11", "--policy 2.5.x", 2,
                  "certinfo verify: The policy \"2.5.x\" is not a dotted object identifier."}));

TEST(CertinfoShowTest, PrintsTheCertificatesPolicies) {
    const CommandRun run = certinfo("show " + pkits::certificatePath("PoliciesP123CACert.crt"));
    EXPECT_EQ(run.exitCode, 0) << run.output;
    EXPECT_NE(run.output.find("Policies:            2.16.840.1.101.3.2.1.48.1, "
                              "2.16.840.1.101.3.2.1.48.2, 2.16.840.1.101.3.2.1.48.3\n"),
              std::string::npos)
        << run.output;
}

}  // namespace
