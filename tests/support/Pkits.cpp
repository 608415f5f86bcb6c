#include "support/Pkits.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <openssl/x509.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace testsupport::pkits {

namespace fc = foundation::certificates;

namespace {

const std::string& directory() {
    static const std::string path = std::string(FOUNDATION_TEST_DATA_DIR) + "/pkits/";
    return path;
}

fc::ByteArray readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return fc::ByteArray(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A list column; the table writes an empty one as nothing or as "-".
std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    if (text == "-") return parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

std::vector<Case> readCases() {
    const fc::ByteArray bytes = readFile(directory() + "cases.tsv");
    std::istringstream in(std::string(bytes.begin(), bytes.end()));
    std::vector<Case> all;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        // Seven columns; the intermediates may be empty, so split keeps empty fields.
        std::vector<std::string> columns;
        std::size_t start = 0;
        for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos;
             start = tab + 1) {
            columns.push_back(line.substr(start, tab - start));
        }
        columns.push_back(line.substr(start));
        if (columns.size() != 7 || (columns[5] != "valid" && columns[5] != "invalid")) {
            throw std::runtime_error("malformed line in cases.tsv: " + line);
        }
        all.push_back({columns[0], columns[1], columns[2], split(columns[3], ','),
                       split(columns[4], ','), columns[5] == "valid", columns[6] == "1"});
    }
    return all;
}

}  // namespace

const std::vector<Case>& cases() {
    static const std::vector<Case> all = readCases();
    return all;
}

std::chrono::system_clock::time_point validationTime() {
    return std::chrono::system_clock::from_time_t(1325376000);  // 2012-01-01T00:00:00Z
}

fc::ByteArray certificateDER(const std::string& file) {
    return readFile(directory() + "certs/" + file);
}

fc::ByteArray crlDER(const std::string& file) { return readFile(directory() + "crls/" + file); }

fc::X509UPtr rawCertificate(const std::string& file) {
    const fc::ByteArray der = certificateDER(file);
    const unsigned char* p = der.data();
    fc::X509UPtr certificate =
        fc::makeX509UPtr(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    if (!certificate) throw std::runtime_error("cannot parse certs/" + file);
    return certificate;
}

fc::X509CRLUPtr rawCRL(const std::string& file) {
    const fc::ByteArray der = crlDER(file);
    const unsigned char* p = der.data();
    fc::X509CRLUPtr crl =
        fc::makeX509CRLUPtr(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
    if (!crl) throw std::runtime_error("cannot parse crls/" + file);
    return crl;
}

void PrintTo(const Case& pkitsCase, std::ostream* out) {
    *out << pkitsCase.id << ' ' << pkitsCase.name;
}

LoadedCase load(const Case& pkitsCase) {
    LoadedCase loaded;
    std::string file;
    try {
        file = kTrustAnchor;
        loaded.trustAnchor.addCertificate(fc::X509Certificate(certificateDER(file)));
        for (const std::string& intermediate : pkitsCase.intermediates) {
            file = intermediate;
            loaded.intermediates.addCertificate(fc::X509Certificate(certificateDER(file)));
        }
        file = pkitsCase.leaf;
        loaded.leaf.emplace(certificateDER(file));
    } catch (const fc::CertificateException& e) {
        loaded = LoadedCase();
        loaded.unsupported = file + ": " + e.what();
    }
    return loaded;
}

}  // namespace testsupport::pkits
