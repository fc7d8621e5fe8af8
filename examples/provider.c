#include <kp.h>

#include <unistd.h>

int main(void)
{
    kp_t *handle = kp_new("thermometer", NULL);
    kp_tag_t *tag = kp_tag_provider_new(handle, "plant/boiler/temperature", KP_TYPE_DOUBLE, 0, 0);
    for (double celsius = 20.0; tag && celsius < 25.0; celsius += 0.5) {
        kp_tag_write(handle, tag, &celsius, sizeof(celsius));
        kp_tag_notify(handle);
        sleep(1);
    }
    return kp_close(handle);
}
