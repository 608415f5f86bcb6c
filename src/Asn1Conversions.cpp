#include "Asn1Conversions.hpp"

#include "OpenSSLPtr.hpp"

#include <foundation/certificates/Exceptions.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

#include <openssl/bn.h>
#include <openssl/objects.h>

namespace foundation::certificates::detail {

std::unordered_map<std::string, std::string> getNameAsRDNs(const X509_NAME* name) {
    std::unordered_map<std::string, std::string> attributes;
    if (name == nullptr) return attributes;
    const int count = X509_NAME_entry_count(name);
    for (int i = 0; i < count; ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        if (entry == nullptr) continue;
        const char* key = OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry)));
        const ASN1_STRING* data = X509_NAME_ENTRY_get_data(entry);
        if (data == nullptr) continue;
        unsigned char* utf8 = nullptr;
        const int length = ASN1_STRING_to_UTF8(&utf8, data);
        const OpenSSLMemory<unsigned char> owner(utf8);
        // A value that cannot be converted to UTF-8 is left out rather than failing the whole
        // name: the other attributes are still meaningful.
        if (length < 0) continue;
        attributes[key != nullptr ? key : "UNDEF"] =
            std::string(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    }
    return attributes;
}

std::string nameToString(const X509_NAME* name) {
    const BIOUPtr bio = makeBIOUPtr(BIO_new(BIO_s_mem()));
    if (!bio) throw X509CertificateException("Internal error: Unable to allocate a buffer.");
    X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

std::string asn1TimeToString(const ASN1_TIME* time) {
    const BIOUPtr bio = makeBIOUPtr(BIO_new(BIO_s_mem()));
    if (!bio || ASN1_TIME_print(bio.get(), time) < 1) {
        throw X509CertificateException("Error: printing the ASN1 time failed.");
    }
    char buffer[1024] = {};
    if (BIO_gets(bio.get(), buffer, sizeof buffer) < 1) {
        throw X509CertificateException("Error: Could not get the ASN1 time in string format.");
    }
    return std::string(buffer);
}

TimePoint asn1TimeToTimePoint(const ASN1_TIME* time) {
    const OpenSSLPtr<ASN1_STRING> epoch(ASN1_UTCTIME_set(nullptr, 0));
    int days = 0;
    int seconds = 0;
    if (!epoch || ASN1_TIME_diff(&days, &seconds, epoch.get(), time) != 1) {
        throw X509CertificateException("Invalid time format used in the certificate.");
    }
    const std::chrono::seconds sinceEpoch(static_cast<std::int64_t>(days) * 86400 + seconds);
    return TimePoint(std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch));
}

std::string asn1IntegerToDecimalString(const ASN1_INTEGER* integer) {
    const BNUPtr number = makeBNUPtr(ASN1_INTEGER_to_BN(integer, nullptr));
    if (!number) throw X509CertificateException("Internal error: Unable to get serial number.");
    const OpenSSLMemory<char> text(BN_bn2dec(number.get()));
    if (!text)
        throw X509CertificateException("Internal error: Unable to get serial number from BN.");
    return std::string(text.get());
}

// Arcs can be arbitrarily long; OBJ_obj2txt says how long the whole text is.
std::string dottedOID(const ASN1_OBJECT* object) {
    char buffer[128] = {};
    const int length = OBJ_obj2txt(buffer, sizeof buffer, object, 1);
    if (length < static_cast<int>(sizeof buffer)) return buffer;
    std::string longer(static_cast<std::size_t>(length) + 1, '\0');
    OBJ_obj2txt(&longer[0], length + 1, object, 1);
    longer.resize(static_cast<std::size_t>(length));
    return longer;
}

}  // namespace foundation::certificates::detail
