#include "StoreSnapshot.hpp"

#include <foundation/certificates/Exceptions.hpp>

#include <algorithm>

namespace foundation::certificates::detail {

namespace {

const void* contentOf(const X509_OBJECT* object) {
    if (X509_OBJECT_get_type(object) == X509_LU_CRL) return X509_OBJECT_get0_X509_CRL(object);
    return X509_OBJECT_get0_X509(object);
}

std::vector<const void*> sortedContents(const STACK_OF(X509_OBJECT) * objects) {
    std::vector<const void*> contents;
    const int count = sk_X509_OBJECT_num(objects);
    contents.reserve(count > 0 ? static_cast<std::size_t>(count) : 0);
    for (int i = 0; i < count; ++i) contents.push_back(contentOf(sk_X509_OBJECT_value(objects, i)));
    std::sort(contents.begin(), contents.end());
    return contents;
}

}  // namespace

OpenSSLPtr<X509_STORE> copyStoreObjects(X509_STORE* source) {
    OpenSSLPtr<X509_STORE> copy(X509_STORE_new());
    if (!copy) throw TrustStoreException("Failed to create X509_STORE");
    STACK_OF(X509_OBJECT)* target = X509_STORE_get0_objects(copy.get());

    const StoreListLock lock(source);
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(source);
    const int count = sk_X509_OBJECT_num(objects);
    for (int i = 0; i < count; ++i) {
        const X509_OBJECT* object = sk_X509_OBJECT_value(objects, i);
        X509_OBJECT* shared = X509_OBJECT_new();
        const bool set =
            shared != nullptr &&
            (X509_OBJECT_get_type(object) == X509_LU_CRL
                 ? X509_OBJECT_set1_X509_CRL(shared, X509_OBJECT_get0_X509_CRL(object)) == 1
                 : X509_OBJECT_set1_X509(shared, X509_OBJECT_get0_X509(object)) == 1);
        if (!set || sk_X509_OBJECT_push(target, shared) <= 0) {
            X509_OBJECT_free(shared);
            throw TrustStoreException(X509_OBJECT_get_type(object) == X509_LU_CRL
                                          ? "Failed to add CRL to store"
                                          : "Failed to add certificate to store");
        }
    }
    return copy;
}

std::shared_ptr<const StoreSnapshot> StoreSnapshot::of(
    X509_STORE* source, std::shared_ptr<const StoreSnapshot> previous) {
    if (previous) {
        const StoreListLock lock(source);
        if (sortedContents(X509_STORE_get0_objects(source)) == previous->contents_) return previous;
    }
    std::shared_ptr<StoreSnapshot> snapshot(new StoreSnapshot());
    snapshot->store_ = copyStoreObjects(source);
    snapshot->contents_ = sortedContents(X509_STORE_get0_objects(snapshot->store_.get()));
    return snapshot;
}

}  // namespace foundation::certificates::detail
