// A minimal application of the installed package.
#include <foundation/certificates.hpp>

#include <iostream>

int main() {
    namespace fc = foundation::certificates;
    if (fc::hexEncode(fc::base64Decode("TWFu")) != "4d616e") return 1;
    try {
        fc::hexDecode("zz");
        return 1;
    } catch (const fc::CertificateException& e) {
        std::cout << "consumer caught: " << e.what() << '\n';
    }
    std::cout << "logger: " << fc::getLogger().name() << '\n';
    return 0;
}
