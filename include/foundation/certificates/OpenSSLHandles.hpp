// Scoped owners for OpenSSL objects.
//
// Each factory takes ownership of the raw pointer it is given: do not free it afterwards.
// Wrap at birth and test for null on the next line:
//
//   BIOUPtr bio = makeBIOUPtr(BIO_new(BIO_s_mem()));
//   if (!bio) { ... }
//
// The factories of OSSL_PARAM, EC_GROUP, EC_POINT and BN_CTX refuse null with a
// CertificateException, so their handles are never empty.
#pragma once

#include <foundation/certificates/Export.hpp>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/x509.h>

#include <memory>

namespace foundation::certificates {

using BIOUPtr = std::unique_ptr<BIO, void (*)(BIO*)>;
using X509UPtr = std::unique_ptr<X509, void (*)(X509*)>;
using X509CRLUPtr = std::unique_ptr<X509_CRL, void (*)(X509_CRL*)>;
using EVP_PKEYUPtr = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;
using BNUPtr = std::unique_ptr<BIGNUM, void (*)(BIGNUM*)>;  // wipes the number when freeing
using X509SPtr = std::shared_ptr<X509>;
using X509StackUPtr = std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)>;
using X509INFOStackUPtr = std::unique_ptr<STACK_OF(X509_INFO), void (*)(STACK_OF(X509_INFO)*)>;
using OSSL_PARAMUPtr = std::unique_ptr<OSSL_PARAM, void (*)(OSSL_PARAM*)>;
using EC_GROUPUPtr = std::unique_ptr<EC_GROUP, void (*)(EC_GROUP*)>;
using EC_POINTUPtr = std::unique_ptr<EC_POINT, void (*)(EC_POINT*)>;
using BN_CTXUPtr = std::unique_ptr<BN_CTX, void (*)(BN_CTX*)>;

// Free every element of the stack, then the stack itself.
FOUNDATION_CERTIFICATES_EXPORT void stackDeleter_X509(STACK_OF(X509) * stack);
FOUNDATION_CERTIFICATES_EXPORT void stackDeleter_X509INFO(STACK_OF(X509_INFO) * stack);

// Null gives an empty handle.
FOUNDATION_CERTIFICATES_EXPORT BIOUPtr makeBIOUPtr(BIO* bio);
FOUNDATION_CERTIFICATES_EXPORT X509UPtr makeX509UPtr(X509* certificate);
FOUNDATION_CERTIFICATES_EXPORT X509CRLUPtr makeX509CRLUPtr(X509_CRL* crl);
FOUNDATION_CERTIFICATES_EXPORT EVP_PKEYUPtr makeEVP_PKEYUPtr(EVP_PKEY* key);
FOUNDATION_CERTIFICATES_EXPORT BNUPtr makeBNUPtr(BIGNUM* number);
FOUNDATION_CERTIFICATES_EXPORT X509StackUPtr makeX509StackUPtr(STACK_OF(X509) * stack);
FOUNDATION_CERTIFICATES_EXPORT X509INFOStackUPtr makeX509INFOStackUPtr(STACK_OF(X509_INFO) * stack);

// Null gives an empty handle. Should allocating the shared owner fail, the certificate is freed
// before std::bad_alloc leaves, so it never leaks.
FOUNDATION_CERTIFICATES_EXPORT X509SPtr makeX509SPtr(X509* certificate);

// Null throws CertificateException "Fail to create <handle type>; the given raw pointer is NULL".
FOUNDATION_CERTIFICATES_EXPORT OSSL_PARAMUPtr makeOSSL_PARAMUPtr(OSSL_PARAM* params);
FOUNDATION_CERTIFICATES_EXPORT EC_GROUPUPtr makeEC_GROUPUPtr(EC_GROUP* group);
FOUNDATION_CERTIFICATES_EXPORT EC_POINTUPtr makeEC_POINTUPtr(EC_POINT* point);
FOUNDATION_CERTIFICATES_EXPORT BN_CTXUPtr makeBN_CTXUPtr(BN_CTX* context);

}  // namespace foundation::certificates
