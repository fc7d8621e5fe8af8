// Writes a value, reads it back through a tag of its own and prints it.
#include <kp.h>

#include <cstdio>

int main()
{
    kp_t *handle = kp_new("consumer", nullptr);
    kp_tag_t *provider = kp_tag_provider_new(handle, "installed/answer", KP_TYPE_INT32, 4, 0);
    kp_tag_t *consumer = kp_tag_consumer_new(handle, "installed/answer");
    int32_t value = 42;
    int32_t found = 0;
    if (!provider || !consumer || kp_tag_write(handle, provider, &value, sizeof(value)) != 4 ||
        kp_tag_read(consumer, &found, sizeof(found)) != 4)
        return 1;
    std::printf("%d\n", found);
    return kp_tags_destroy(handle) == 0 && kp_destroy(handle) == 0 ? 0 : 1;
}
