// Conversions of ASN.1 values shared by certificate fields, CRLs and revocation details.
#pragma once

#include <foundation/certificates/Types.hpp>

#include <openssl/asn1.h>
#include <openssl/x509.h>

#include <string>
#include <unordered_map>

namespace foundation::certificates::detail {

// Attribute short name to UTF-8 value, in encoding order; a later attribute of the same type
// replaces an earlier one. Null gives an empty map.
std::unordered_map<std::string, std::string> getNameAsRDNs(const X509_NAME* name);

// RFC 2253 text of the name.
std::string nameToString(const X509_NAME* name);

// OpenSSL's print form of the time. Throws X509CertificateException when it cannot be printed.
std::string asn1TimeToString(const ASN1_TIME* time);

// Whole seconds since the epoch. Throws X509CertificateException
// "Invalid time format used in the certificate." when OpenSSL cannot read the time.
TimePoint asn1TimeToTimePoint(const ASN1_TIME* time);

// Decimal text of the integer. Throws X509CertificateException when it cannot be converted.
std::string asn1IntegerToDecimalString(const ASN1_INTEGER* integer);

// An object identifier as dotted decimal arcs, whatever its length.
std::string dottedOID(const ASN1_OBJECT* object);

}  // namespace foundation::certificates::detail
