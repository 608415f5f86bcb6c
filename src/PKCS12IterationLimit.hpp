// The process-wide bound on the key derivations a PKCS#12 container may ask for.
//
// Each count is checked before the derivation it governs runs, so a hostile container costs
// parsing time only. Both checks do nothing when the limit is 0.
#pragma once

#include <openssl/pkcs12.h>

#include <cstdint>
#include <string>

namespace foundation::certificates::detail {

// The counts readable without deriving anything: the MAC's, every encrypted part's and every
// shrouded key outside those parts. Throws PKCS12CertificateException for one over the limit.
void checkVisiblePKCS12Iterations(const PKCS12& container, std::uint64_t limit);

// Shrouded keys inside encrypted parts show only once a part is decrypted, which costs each part
// its own (already checked) derivation a second time. Call after the MAC check has accepted the
// passphrase and with the legacy provider loaded, so that every part that opens later opens here.
void checkEncryptedPKCS12Iterations(const PKCS12& container, const std::string& passphrase,
                                    std::uint64_t limit);

}  // namespace foundation::certificates::detail
