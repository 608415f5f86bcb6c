// How the validation code reaches the parsed list behind a CertificateRevocationList.
#pragma once

#include <foundation/certificates/CertificateRevocationList.hpp>
#include <foundation/certificates/OpenSSLHandles.hpp>

namespace foundation::certificates::detail {

struct RevocationListAccess {
    // Borrowed; lives as long as any copy of the list. Its entries are sorted before it is
    // handed out, so OpenSSL never reorders them while another thread reads them. Throws for an
    // empty list.
    static X509_CRL* shared(const CertificateRevocationList& list);

    // Takes over a list parsed elsewhere.
    static CertificateRevocationList adopt(X509CRLUPtr crl);

    // Whether the two handles share one parsed list.
    static bool same(const CertificateRevocationList& a, const CertificateRevocationList& b) {
        return a.data == b.data;
    }
};

}  // namespace foundation::certificates::detail
