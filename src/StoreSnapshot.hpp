// Read-only copies of OpenSSL stores for verification.
//
// A verification only reads its store, so one copy can serve every verification until the
// source's certificates change. The copy is never handed out and never gets flags or callbacks
// (those go on the verification context), so it stays what it was copied as.
#pragma once

#include "OpenSSLPtr.hpp"

#include <openssl/x509_vfy.h>

#include <memory>
#include <vector>

namespace foundation::certificates::detail {

// Holds an X509_STORE's own lock, which OpenSSL takes around every lookup and addition, while
// its object list is read or edited. Not recursive: nothing that adds to the same store may
// run under it.
class StoreListLock {
  public:
    explicit StoreListLock(X509_STORE* store) noexcept
        : store_(store), locked_(X509_STORE_lock(store) == 1) {}
    ~StoreListLock() {
        if (locked_) X509_STORE_unlock(store_);
    }
    StoreListLock(const StoreListLock&) = delete;
    StoreListLock& operator=(const StoreListLock&) = delete;

  private:
    X509_STORE* store_;
    bool locked_;
};

// A new store holding the source's certificates and CRLs, shared by reference count. Linear in
// the number of objects: they are pushed as they are, where adding them one by one would sort
// the growing list again on every addition. Takes the source's list lock while reading.
OpenSSLPtr<X509_STORE> copyStoreObjects(X509_STORE* source);

class StoreSnapshot {
  public:
    // The snapshot of the source, reusing `previous` when the source still holds exactly the
    // same certificates and CRLs.
    static std::shared_ptr<const StoreSnapshot> of(X509_STORE* source,
                                                   std::shared_ptr<const StoreSnapshot> previous);

    // Read-only: verify against it, never add to it.
    X509_STORE* store() const { return store_.get(); }

  private:
    StoreSnapshot() = default;

    OpenSSLPtr<X509_STORE> store_;
    // What the source held, sorted. The snapshot keeps references to these objects, so their
    // addresses cannot be reused for other objects while it lives.
    std::vector<const void*> contents_;
};

}  // namespace foundation::certificates::detail
