#include "certificates.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace kptest {

void make_certificates()
{
    const char *script =
        "mkdir -p /run/tls && cd /run/tls && exec 2>openssl.log && "
        "ec='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes' && "
        "for name in ca other; do "
        "openssl req -x509 $ec -keyout $name.key -out $name.pem -subj /CN=$name -days 2 || exit 1; "
        "done && echo subjectAltName=IP:127.0.0.1 > names && "
        "for name in broker device expired; do "
        "days=2 && case $name in expired) days=-1;; esac && "
        "openssl req $ec -keyout $name.key -out $name.csr -subj /CN=$name && "
        "openssl x509 -req -in $name.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days $days "
        "-extfile names -out $name.pem || exit 1; done && chmod 600 *.key";
    ASSERT_EQ(std::system(script), 0);
}

} // namespace kptest
