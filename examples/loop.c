/* Follows a pattern in a loop of its own: no callback, so nothing here needs a lock. */
#include <kp.h>

#include <stdio.h>
#include <sys/epoll.h>
#include <unistd.h>

static void print_value(kp_tag_t *tag)
{
    double value = 0;
    if (kp_tag_read_consistent(tag, &value, sizeof(value), NULL, NULL, NULL) == sizeof(value))
        printf("%s: %.1f\n", kp_tag_get_topic(tag), value);
}

static void print_changes(kp_t *handle)
{
    kp_write_info notice;
    kp_tag_iter_t iter = {0, NULL};
    if (kp_take_notice(handle, &notice) != 1)
        return;
    while (iter.bucket < KP_BUCKET_COUNT || iter.entry) {
        kp_tag_t *tag = kp_get_next_updated_tag(handle, &notice, &iter);
        if (tag) /* here you may subscribe, create tags, and destroy this one */
            print_value(tag);
    }
    fflush(stdout);
}

int main(void)
{
    kp_t *handle = kp_new("loop", NULL);
    int loop = epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event change = {.events = EPOLLIN, .data = {.fd = kp_get_fd(handle)}};
    if (!handle || loop < 0 || epoll_ctl(loop, EPOLL_CTL_ADD, change.data.fd, &change) != 0)
        return 1;
    kp_sub_topic(handle, "plant/#");
    while (epoll_wait(loop, &change, 1, 10000) > 0) /* until it is quiet for 10 s */
        print_changes(handle);
    close(loop);
    return kp_close(handle);
}
