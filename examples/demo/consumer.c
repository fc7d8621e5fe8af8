// A consumer of the demo: shows each change as it arrives, with the age of the value from its write
// to the callback. Ends when the provider is done, and writes the last value that it saw of every
// topic to a file.
//
// usage: demo-consumer PREFIX NAME LAST-VALUES-FILE TOPIC-OR-PATTERN…
// Shows topics below PREFIX only; its endpoint is PREFIX-NAME.
#include "value_text.h"

#include <kp.h>

#include <errno.h>
#include <inttypes.h>
#include <semaphore.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

enum { MOST_TOPICS = 32, LONGEST_RUN_S = 60 };

struct seen {
    char topic[64];
    char text[VALUE_TEXT_SIZE];
};

// Only the change callback uses this until the endpoint is closed.
struct consumer {
    const char *prefix;
    const char *name;
    sem_t done;
    struct seen seen[MOST_TOPICS];
    int count;
};

// Gives what follows the demo's prefix in a topic, or null for a topic of somebody else.
static const char *below_prefix(const struct consumer *self, const char *topic)
{
    const size_t length = strlen(self->prefix);
    if (strncmp(topic, self->prefix, length) != 0 || topic[length] != '/')
        return NULL;
    return topic + length + 1;
}

static struct seen *entry_of(struct consumer *self, const char *topic)
{
    for (int i = 0; i < self->count; ++i)
        if (strcmp(self->seen[i].topic, topic) == 0)
            return &self->seen[i];
    if (self->count == MOST_TOPICS)
        return NULL;
    struct seen *entry = &self->seen[self->count++];
    snprintf(entry->topic, sizeof(entry->topic), "%s", topic);
    return entry;
}

static void show(struct consumer *self, kp_tag_t *tag)
{
    char value[KP_MAX_VALUE_SIZE];
    uint64_t written = 0;
    uint32_t type = 0;
    uint32_t quality = 0;
    const int32_t size = kp_tag_read_with_source_params(tag, value, sizeof(value), &quality, NULL);
    if (size < 0 || kp_tag_get_value_info(tag, &type, NULL, NULL) < 0 ||
        kp_tag_get_last_write_timestamp(tag, &written) < 0)
        return;
    const uint64_t age_us = kp_get_timestamp_us() - written;
    struct seen *entry = entry_of(self, kp_tag_get_topic(tag));
    if (!entry)
        return;
    value_text(entry->text, type, value, (uint32_t)size);
    printf("%-8s %-22s %-8s %-48s quality %u  age %5" PRIu64 " us\n", self->name, entry->topic,
           kp_type2str(type), entry->text, quality, age_us);
    if (strcmp(below_prefix(self, entry->topic), "run/done") == 0 && value[0])
        sem_post(&self->done);
}

static int on_change(kp_t *handle, const kp_write_info *notice, void *user_data)
{
    kp_tag_iter_t iter = {0, NULL};
    while (iter.bucket < KP_BUCKET_COUNT) {
        kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter);
        if (tag && below_prefix(user_data, kp_tag_get_topic(tag)))
            show(user_data, tag);
    }
    return fflush(stdout);
}

static int wait_until_done(struct consumer *self)
{
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += LONGEST_RUN_S;
    int result = 0;
    do {
        result = sem_timedwait(&self->done, &deadline);
    } while (result != 0 && errno == EINTR);
    return result;
}

static int keep_last_values(const struct consumer *self, const char *path)
{
    FILE *file = fopen(path, "w");
    if (!file)
        return -1;
    for (int i = 0; i < self->count; ++i)
        fprintf(file, "%s\t%s\n", self->seen[i].topic, self->seen[i].text);
    return fclose(file);
}

int main(int argc, char **argv)
{
    static struct consumer self;
    if (argc < 5) {
        fprintf(stderr, "usage: demo-consumer PREFIX NAME LAST-VALUES-FILE TOPIC-OR-PATTERN...\n");
        return 2;
    }
    char endpoint[64];
    self.prefix = argv[1];
    self.name = argv[2];
    sem_init(&self.done, 0, 0);
    snprintf(endpoint, sizeof(endpoint), "%s-%s", self.prefix, self.name);
    kp_t *handle = kp_new(endpoint, on_change);
    if (!handle) {
        perror("demo-consumer: kp_new");
        return 1;
    }
    kp_set_user_data(handle, &self);
    for (int i = 4; i < argc; ++i)
        kp_sub_topic(handle, argv[i]); // -1 while there is no store yet; the pattern stays
    int result = wait_until_done(&self);
    kp_close(handle); // no callback runs from here on
    if (result != 0)
        fprintf(stderr, "demo-consumer %s: the provider was not done in time\n", self.name);
    else
        result = keep_last_values(&self, argv[3]);
    return result == 0 ? 0 : 1;
}
