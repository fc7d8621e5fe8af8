// expect: deleted
#include <kp.hpp>

void use(kp::Provider<int> &provider)
{
    kp::Provider<int> copy = provider;
}
