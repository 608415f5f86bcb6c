// Which of the platform's certificates are trusted for a usage, decided over the platform
// operations of macos/SecurityPlatform.hpp and nothing else, so it builds and runs anywhere.
#pragma once

#include "platform/macos/SecurityPlatform.hpp"

namespace foundation::certificates {

class TrustStoreImpl;

namespace osx {

// Adds to the store the certificates the platform trusts for the usage: those the user, then
// the administrator, explicitly trusts, then the system's own except those either distrusts or
// whose own settings keep them out. During a recorded import, the ones kept out are reported.
void addTrustedCertificates(const SecurityPlatform& platform, TrustStoreImpl& store,
                            TrustStore::Usage usage, bool throwOnFailure);

}  // namespace osx
}  // namespace foundation::certificates
