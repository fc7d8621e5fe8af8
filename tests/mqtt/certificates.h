// Keys and certificates for a test, below /run/tls; see the script for their names.
#pragma once

namespace kptest {

// An authority (ca), a certificate for 127.0.0.1 as a broker and as a device, one of the broker's
// that has expired, and an authority that signed none of them (other). Keys have mode 0600.
void make_certificates();

} // namespace kptest
