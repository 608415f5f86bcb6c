// Internal owners for the OpenSSL objects that the public handle types do not cover.
//
// One pointer wide: the deleter is a stateless type picked by the owned type, so these cost
// nothing over a raw pointer. Add a type with one FOUNDATION_OPENSSL_DELETER line.
#pragma once

#include <openssl/asn1.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

namespace foundation::certificates::detail {

template <typename T>
struct OpenSSLDeleter;

// Stacks own their elements.
inline void freePKCS7Stack(STACK_OF(PKCS7) * stack) { sk_PKCS7_pop_free(stack, PKCS7_free); }
inline void freeSafeBagStack(STACK_OF(PKCS12_SAFEBAG) * stack) {
    sk_PKCS12_SAFEBAG_pop_free(stack, PKCS12_SAFEBAG_free);
}

#define FOUNDATION_OPENSSL_DELETER(Type, freeFunction)      \
    template <>                                             \
    struct OpenSSLDeleter<Type> {                           \
        void operator()(Type* p) const { freeFunction(p); } \
    };

// ASN1_INTEGER, ASN1_TIME, ASN1_BIT_STRING and the other string types are one OpenSSL type.
FOUNDATION_OPENSSL_DELETER(ASN1_STRING, ASN1_STRING_free)
FOUNDATION_OPENSSL_DELETER(AUTHORITY_INFO_ACCESS, AUTHORITY_INFO_ACCESS_free)
FOUNDATION_OPENSSL_DELETER(AUTHORITY_KEYID, AUTHORITY_KEYID_free)
FOUNDATION_OPENSSL_DELETER(BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free)
FOUNDATION_OPENSSL_DELETER(CRL_DIST_POINTS, CRL_DIST_POINTS_free)
FOUNDATION_OPENSSL_DELETER(EVP_ENCODE_CTX, EVP_ENCODE_CTX_free)
FOUNDATION_OPENSSL_DELETER(EVP_MD, EVP_MD_free)
FOUNDATION_OPENSSL_DELETER(EVP_MD_CTX, EVP_MD_CTX_free)
FOUNDATION_OPENSSL_DELETER(EVP_PKEY_CTX, EVP_PKEY_CTX_free)
FOUNDATION_OPENSSL_DELETER(EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free)
FOUNDATION_OPENSSL_DELETER(GENERAL_NAMES, GENERAL_NAMES_free)
FOUNDATION_OPENSSL_DELETER(PBE2PARAM, PBE2PARAM_free)
FOUNDATION_OPENSSL_DELETER(PBEPARAM, PBEPARAM_free)
FOUNDATION_OPENSSL_DELETER(PBKDF2PARAM, PBKDF2PARAM_free)
FOUNDATION_OPENSSL_DELETER(PKCS12, PKCS12_free)
FOUNDATION_OPENSSL_DELETER(PKCS7, PKCS7_free)
FOUNDATION_OPENSSL_DELETER(SCRYPT_PARAMS, SCRYPT_PARAMS_free)
FOUNDATION_OPENSSL_DELETER(STACK_OF(PKCS7), freePKCS7Stack)
FOUNDATION_OPENSSL_DELETER(STACK_OF(PKCS12_SAFEBAG), freeSafeBagStack)
FOUNDATION_OPENSSL_DELETER(X509_EXTENSION, X509_EXTENSION_free)
FOUNDATION_OPENSSL_DELETER(X509_NAME, X509_NAME_free)
FOUNDATION_OPENSSL_DELETER(X509_STORE, X509_STORE_free)
FOUNDATION_OPENSSL_DELETER(X509_STORE_CTX, X509_STORE_CTX_free)
FOUNDATION_OPENSSL_DELETER(X509_VERIFY_PARAM, X509_VERIFY_PARAM_free)
// Frees the stack only: its lists are borrowed.
FOUNDATION_OPENSSL_DELETER(STACK_OF(X509_CRL), sk_X509_CRL_free)

#undef FOUNDATION_OPENSSL_DELETER

template <typename T>
using OpenSSLPtr = std::unique_ptr<T, OpenSSLDeleter<T>>;

template <typename T>
OpenSSLPtr<T> wrap(T* raw) noexcept {
    return OpenSSLPtr<T>(raw);
}

// Memory that OpenSSL allocated for us (ASN1_STRING_to_UTF8, BN_bn2dec, i2d_* with a null
// output pointer): released with OPENSSL_free.
struct OpenSSLFree {
    void operator()(void* p) const { OPENSSL_free(p); }
};
template <typename T>
using OpenSSLMemory = std::unique_ptr<T, OpenSSLFree>;

}  // namespace foundation::certificates::detail
