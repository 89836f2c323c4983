#pragma once

#include "Platform/Linux/Secrets/GnuTlsKeyStore.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Transport/HostCertificate.h"

namespace velmora {

/// A certificate with its key as a host makes them, for tests and benchmarks; one per process.
inline const HostIdentityCertificate& testIdentity() {
    static const HostIdentityCertificate made = [] {
        ScratchFolder folder;
        FakeSecretStore secrets;
        GnuTlsKeyStore store(secrets, folder.path());
        return HostCertificate::load(store).value();
    }();
    return made;
}

}  // namespace velmora
