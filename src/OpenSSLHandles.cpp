#include <foundation/certificates/OpenSSLHandles.hpp>

#include <foundation/certificates/Exceptions.hpp>

#include <string>

namespace foundation::certificates {

namespace {

template <typename T>
std::unique_ptr<T, void (*)(T*)> requireNonNull(T* raw, void (*deleter)(T*),
                                                const char* handleName) {
    if (raw == nullptr) {
        throw CertificateException(std::string("Fail to create ") + handleName +
                                   "; the given raw pointer is NULL");
    }
    return {raw, deleter};
}

}  // namespace

void stackDeleter_X509(STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); }

void stackDeleter_X509INFO(STACK_OF(X509_INFO) * stack) {
    sk_X509_INFO_pop_free(stack, X509_INFO_free);
}

BIOUPtr makeBIOUPtr(BIO* bio) { return {bio, BIO_free_all}; }
X509UPtr makeX509UPtr(X509* certificate) { return {certificate, X509_free}; }
X509CRLUPtr makeX509CRLUPtr(X509_CRL* crl) { return {crl, X509_CRL_free}; }
EVP_PKEYUPtr makeEVP_PKEYUPtr(EVP_PKEY* key) { return {key, EVP_PKEY_free}; }
BNUPtr makeBNUPtr(BIGNUM* number) { return {number, BN_clear_free}; }
X509StackUPtr makeX509StackUPtr(STACK_OF(X509) * stack) { return {stack, stackDeleter_X509}; }
X509INFOStackUPtr makeX509INFOStackUPtr(STACK_OF(X509_INFO) * stack) {
    return {stack, stackDeleter_X509INFO};
}

X509SPtr makeX509SPtr(X509* certificate) {
    if (certificate == nullptr) return {};
    // A raw pointer is held until the control block exists: std::shared_ptr's constructor
    // calls the deleter itself if that allocation throws.
    return X509SPtr(certificate, X509_free);
}

OSSL_PARAMUPtr makeOSSL_PARAMUPtr(OSSL_PARAM* params) {
    return requireNonNull(params, OSSL_PARAM_free, "OSSL_PARAMUPtr");
}
EC_GROUPUPtr makeEC_GROUPUPtr(EC_GROUP* group) {
    return requireNonNull(group, EC_GROUP_free, "EC_GROUPUPtr");
}
EC_POINTUPtr makeEC_POINTUPtr(EC_POINT* point) {
    return requireNonNull(point, EC_POINT_free, "EC_POINTUPtr");
}
BN_CTXUPtr makeBN_CTXUPtr(BN_CTX* context) {
    return requireNonNull(context, BN_CTX_free, "BN_CTXUPtr");
}

}  // namespace foundation::certificates
