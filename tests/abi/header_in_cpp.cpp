// The header is all that this file includes first, so it has to stand alone in strict C++17.
#include <kp.h>

#include <cstring>

static_assert(sizeof(kp_write_info) == 129, "a change notice is 129 bytes");
static_assert(sizeof(kp_new_tag_info) == 387, "a new-tag notice is 387 bytes");

int main()
{
    return std::strcmp(kp_type2str(KP_TYPE_DOUBLE), "double");
}
