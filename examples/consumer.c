#include <kp.h>

#include <stdio.h>
#include <unistd.h>

static int on_change(kp_t *handle, const kp_write_info *notice, void *user_data)
{
    (void)user_data;
    kp_tag_iter_t iter = {0, NULL};
    while (iter.bucket < KP_BUCKET_COUNT || iter.entry) {
        kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter);
        double celsius = 0;
        if (tag && kp_tag_read(tag, &celsius, sizeof(celsius)) == sizeof(celsius))
            printf("%s: %.1f\n", kp_tag_get_topic(tag), celsius);
    }
    return fflush(stdout);
}

int main(void)
{
    kp_t *handle = kp_new("display", on_change);
    kp_sub_topic(handle, "plant/boiler/temperature");
    sleep(10);
    return kp_close(handle);
}
