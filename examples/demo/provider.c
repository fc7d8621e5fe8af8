// The demo's provider: publishes figures of this machine, read from /proc, twice a second. After
// the last round it writes every topic's last value to a file, announces that it is done and keeps
// its tags until standard input ends.
//
// usage: demo-provider PREFIX ROUNDS LAST-VALUES-FILE
// Its topics are PREFIX/load/one and so on, its endpoint is PREFIX-provider.
#include "value_text.h"

#include <kp.h>

#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { ROUND_US = 500000, JOIN_US = 1300000, NAME_SIZE = 64 };

struct figures {
    double load;
    uint64_t memory_kib;
    uint64_t cpu_user;
    uint64_t cpu_system;
    uint64_t received;
    char status[96];
    uint8_t done;
};

struct topic {
    const char *below; // what follows the prefix
    uint32_t type;
    size_t offset; // where its value stands in struct figures
    kp_tag_t *tag;
    char name[NAME_SIZE];
};

static struct topic topics[] = {
    {"load/one", KP_TYPE_DOUBLE, offsetof(struct figures, load), NULL, ""},
    {"memory/available", KP_TYPE_UINT64, offsetof(struct figures, memory_kib), NULL, ""},
    {"cpu/user", KP_TYPE_UINT64, offsetof(struct figures, cpu_user), NULL, ""},
    {"cpu/system", KP_TYPE_UINT64, offsetof(struct figures, cpu_system), NULL, ""},
    {"net/received", KP_TYPE_UINT64, offsetof(struct figures, received), NULL, ""},
    {"host/status", KP_TYPE_STRING, offsetof(struct figures, status), NULL, ""},
    {"run/done", KP_TYPE_BOOLEAN, offsetof(struct figures, done), NULL, ""},
};
enum { TOPIC_COUNT = sizeof(topics) / sizeof(topics[0]), DONE = TOPIC_COUNT - 1 };

static void read_load(struct figures *now)
{
    double fifteen_minutes = 0;
    char running[32] = "?";
    FILE *file = fopen("/proc/loadavg", "r");
    if (!file)
        return;
    if (fscanf(file, "%lf %*f %lf %31s", &now->load, &fifteen_minutes, running) == 3)
        snprintf(now->status, sizeof(now->status), "%s tasks running, load of 15 minutes %.2f",
                 running, fifteen_minutes);
    fclose(file);
}

static void read_memory(struct figures *now)
{
    char line[128];
    FILE *file = fopen("/proc/meminfo", "r");
    while (file && fgets(line, sizeof(line), file))
        if (sscanf(line, "MemAvailable: %" SCNu64, &now->memory_kib) == 1)
            break;
    if (file)
        fclose(file);
}

static void read_cpu(struct figures *now)
{
    FILE *file = fopen("/proc/stat", "r");
    if (!file)
        return;
    if (fscanf(file, "cpu %" SCNu64 " %*u %" SCNu64, &now->cpu_user, &now->cpu_system) != 2)
        fprintf(stderr, "demo-provider: /proc/stat is not as expected\n");
    fclose(file);
}

static void read_network(struct figures *now)
{
    char line[256];
    now->received = 0;
    FILE *file = fopen("/proc/net/dev", "r");
    while (file && fgets(line, sizeof(line), file)) {
        uint64_t bytes = 0;
        if (sscanf(line, " %*[^:]: %" SCNu64, &bytes) == 1)
            now->received += bytes;
    }
    if (file)
        fclose(file);
}

static uint32_t size_of(const struct topic *topic, const struct figures *now)
{
    return topic->type == KP_TYPE_STRING ? (uint32_t)strlen(now->status)
                                         : kp_get_value_size(topic->type, 0);
}

static int publish(kp_t *handle, const struct topic *first, int count, const struct figures *now)
{
    for (int i = 0; i < count; ++i) {
        const char *value = (const char *)now + first[i].offset;
        if (kp_tag_write(handle, first[i].tag, value, size_of(&first[i], now)) < 0)
            return -1;
    }
    return kp_tag_notify(handle);
}

static int keep_last_values(const char *path, const struct figures *now)
{
    FILE *file = fopen(path, "w");
    if (!file)
        return -1;
    for (int i = 0; i < TOPIC_COUNT; ++i) {
        char text[VALUE_TEXT_SIZE];
        const char *value = (const char *)now + topics[i].offset;
        value_text(text, topics[i].type, value, size_of(&topics[i], now));
        fprintf(file, "%s\t%s\n", topics[i].name, text);
    }
    return fclose(file);
}

static int run(kp_t *handle, int rounds, const char *path)
{
    struct figures now = {0};
    kp_set_new_tag_notify(handle, 1);
    // Lets the consumers that are already there connect, so that they hear of the tags. One that
    // tried before this endpoint listened, which a busy machine can bring about, tries again after
    // a second.
    usleep(JOIN_US);
    for (int i = 0; i < TOPIC_COUNT; ++i) {
        topics[i].tag =
            kp_tag_provider_new(handle, topics[i].name, topics[i].type, sizeof(now.status), 0);
        if (!topics[i].tag)
            return -1;
    }
    for (int round = 0; round < rounds; ++round) {
        read_load(&now);
        read_memory(&now);
        read_cpu(&now);
        read_network(&now);
        if (publish(handle, topics, TOPIC_COUNT, &now) < 0)
            return -1;
        usleep(ROUND_US);
    }
    now.done = 1;
    if (keep_last_values(path, &now) != 0 || publish(handle, &topics[DONE], 1, &now) < 0)
        return -1;
    while (getchar() != EOF)
        continue;
    return 0;
}

int main(int argc, char **argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: demo-provider PREFIX ROUNDS LAST-VALUES-FILE\n");
        return 2;
    }
    char endpoint[NAME_SIZE];
    snprintf(endpoint, sizeof(endpoint), "%s-provider", argv[1]);
    for (int i = 0; i < TOPIC_COUNT; ++i)
        snprintf(topics[i].name, sizeof(topics[i].name), "%s/%s", argv[1], topics[i].below);
    kp_t *handle = kp_new(endpoint, NULL);
    if (!handle) {
        perror("demo-provider: kp_new");
        return 1;
    }
    const int result = run(handle, atoi(argv[2]), argv[3]);
    kp_close(handle);
    return result == 0 ? 0 : 1;
}
