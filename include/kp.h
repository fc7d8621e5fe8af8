/**
 * @file kp.h
 * Named latest values, called tags, exchanged between the processes of one device.
 *
 * A topic such as `a/b/c` has one value of up to 4000 bytes with its type, timestamp, quality and
 * source timestamp. The value lives in a shared-memory file below `/dev/shm/zu-kp`, which the
 * provider writes and every consumer maps and reads. Change notices travel over Unix-domain sockets
 * in `/run/providers/` and reach the callback given to kp_new().
 *
 * Conventions that hold wherever a declaration does not say otherwise:
 *  - Integer results are 0 (or a byte count) on success and -1 on failure; constructors return null
 *    on failure. Every failure is reported first with one line on standard error.
 *  - Strings are NUL-terminated. Output pointers described as optional may be null.
 *  - Timestamps are microseconds since the Unix epoch, from the wall clock.
 *  - What a `_new` function returns goes back through its `_destroy` or `_free` function. Memory
 *    that a function hands over is released with free().
 *  - A function may be called from any thread, but calls that use one handle, one tag or one
 *    segment are serialised by the application, unless the family's description allows more.
 *  - pthread_cancel() ends no thread inside a call that creates, destroys, subscribes, lists, sends
 *    or works on a topic by its name: the thread obeys the request after that call. Two kinds of
 *    calls can be cancelled, and leave nothing behind: a read through a tag while it waits for a
 *    writer, and a call that writes a log line about a wrong argument. Only the peer ends a send
 *    that waits for a peer that does not read. Asynchronous cancellation is not supported.
 */
#ifndef KP_H
#define KP_H

#include <pthread.h>
#include <stdint.h>

/** Marks an exported function. */
#define KP_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @defgroup kp_types Types and limits
 * Codes, limits and records that several families share. The value type codes are written into the
 * segment files and the message types travel on the sockets, so none of them ever changes.
 * @{
 */

/** Value type codes. The last three have a variable size, all others a fixed one. */
enum {
    KP_TYPE_BOOLEAN = 0,    /**< "boolean", 1 byte */
    KP_TYPE_INT8 = 1,       /**< "int8", 1 byte */
    KP_TYPE_INT16 = 2,      /**< "int16", 2 bytes */
    KP_TYPE_INT32 = 3,      /**< "int32", 4 bytes */
    KP_TYPE_INT64 = 4,      /**< "int64", 8 bytes */
    KP_TYPE_UINT8 = 5,      /**< "uint8", 1 byte */
    KP_TYPE_UINT16 = 6,     /**< "uint16", 2 bytes */
    KP_TYPE_UINT32 = 7,     /**< "uint32", 4 bytes */
    KP_TYPE_UINT64 = 8,     /**< "uint64", 8 bytes */
    KP_TYPE_FLOAT = 9,      /**< "float", 4 bytes */
    KP_TYPE_DOUBLE = 10,    /**< "double", 8 bytes */
    KP_TYPE_STRING = 11,    /**< "string", 1 to 4000 bytes, no terminator of its own */
    KP_TYPE_BYTEARRAY = 12, /**< "bytearray", 1 to 4000 bytes */
    KP_TYPE_RAW = 13        /**< "raw", 1 to 4000 bytes */
};

/** What a tag is for its topic. Segments count the open handles of each role separately. */
enum {
    KP_ROLE_PROVIDER = 1, /**< declares type and size, writes */
    KP_ROLE_CONSUMER = 2  /**< reads */
};

/** Quality codes with a meaning of their own; all others belong to the application. */
enum {
    KP_QUALITY_NONE = 0,  /**< a new provider's value; never reported as needing a read */
    KP_QUALITY_GOOD = 1,  /**< what a plain write stores */
    KP_QUALITY_KEEP = 255 /**< passed to a write: leave the stored quality as it is */
};

/** Sizes and counts that have a limit. */
enum {
    KP_MAX_VALUE_SIZE = 4000,    /**< bytes of the largest value */
    KP_BUCKET_COUNT = 1024,      /**< topic hashes run from 0 to 1023 */
    KP_MAX_PEERS = 31,           /**< endpoints that one endpoint can send to */
    KP_NEW_TAG_TOPIC_SIZE = 386, /**< bytes of an announced topic, with its terminator */
    KP_ENDPOINT_NAME_SIZE = 128  /**< bytes of an endpoint's name, with its terminator */
};

/** The first byte of every message between endpoints. */
enum {
    KP_MSG_WRITE_INFO = 1, /**< a kp_write_info */
    KP_MSG_NEW_TAG = 2     /**< a kp_new_tag_info */
};

/** Log levels; a message is printed when the user level is less than or equal to its own. */
enum {
    KP_LEVEL_ALL = 0,   /**< as a user level: print everything */
    KP_LEVEL_TRACE = 1, /**< bright white */
    KP_LEVEL_DEBUG = 2, /**< bright green */
    KP_LEVEL_INFO = 3,  /**< bright cyan */
    KP_LEVEL_WARN = 4,  /**< bright yellow; the user level at load time */
    KP_LEVEL_ERROR = 5, /**< bright red */
    KP_LEVEL_FATAL = 6, /**< bright red; the process goes on */
    KP_LEVEL_OFF = 7    /**< as a user level: print nothing */
};

/** A handle: a dictionary of tags, the subscriptions and one notification endpoint. Opaque. */
typedef struct kp_t kp_t;

/** A tag: one topic as one handle sees it. Opaque. */
typedef struct kp_tag_t kp_tag_t;

/** An open segment: one topic's shared-memory file, mapped. Opaque. */
typedef struct kp_shm_t kp_shm_t;

/** A notification endpoint: one socket, its peers and three threads. Opaque. */
typedef struct kp_notify_t kp_notify_t;

/** A dictionary of tags in 1024 buckets. Opaque; see kp_dict_entry for its chains. */
typedef struct kp_dict kp_dict;

/** The change notice, as it travels: 129 bytes. */
typedef struct kp_write_info {
    uint8_t type; /**< always #KP_MSG_WRITE_INFO */
    /** Bucket `h` is bit `h & 7` of byte `h >> 3`; bit 0 is the least significant. A set bit says
        that a topic of that bucket was written since the sender's last notice. */
    uint8_t bitmap[128];
} kp_write_info;

/** The new-tag notice, as it travels: 387 bytes. */
typedef struct kp_new_tag_info {
    uint8_t type;    /**< always #KP_MSG_NEW_TAG */
    char topic[386]; /**< the announced topic, NUL-terminated, at most 385 characters */
} kp_new_tag_info;

/** One entry of a dictionary bucket. The newest entry comes first. */
typedef struct kp_dict_entry {
    kp_tag_t *tag;              /**< not owned by the dictionary */
    struct kp_dict_entry *next; /**< null at the end of the bucket */
} kp_dict_entry;

/** The state of one walk with kp_get_next_updated_tag(). Start it as `{0, NULL}`. */
typedef struct kp_tag_iter_t {
    int32_t bucket;       /**< the next bucket to examine, 0 to 1024 */
    kp_dict_entry *entry; /**< the next entry of the bucket last opened, or null */
} kp_tag_iter_t;

/** One topic of a list of topics. */
typedef struct kp_topic_node_t {
    char *topic;                  /**< heap copy, relative to the store's directory */
    struct kp_topic_node_t *next; /**< null at the end */
} kp_topic_node_t;

/** A node of a kplist. */
typedef struct kplist_node {
    void *data;               /**< the caller's element */
    struct kplist_node *prev; /**< kept by some operations only; see kplist_add() */
    struct kplist_node *next; /**< null at the end */
} kplist_node;

/** A list of untyped elements with one lock. */
typedef struct kplist {
    uint32_t count;        /**< the length of the chain from `head` */
    pthread_mutex_t mutex; /**< default attributes, not recursive */
    kplist_node *head;     /**< null when the list is empty */
    kplist_node *tail;     /**< see kplist_remove() for when it is null */
} kplist;

/**
 * Receives the change notices of a handle's peers. `notice` is complete and read-only and must not
 * be kept; `user_data` is the handle's. The result is ignored.
 *
 * It runs on the endpoint's receive thread with the handle's lock held: it may read tags, walk them
 * with kp_get_next_updated_tag() and write, but must not create or destroy tags, subscribe,
 * unsubscribe or destroy the handle, all of which would wait for itself for ever. A handle with a
 * descriptor to wait on (see kp_get_fd()) calls it no more.
 *
 * The thread blocks all signals, and a program that is executed from here inherits that. Give the
 * program an empty mask first, by sigprocmask() after fork() or by posix_spawnattr_setsigmask().
 */
typedef int (*kp_callback_t)(kp_t *handle, const kp_write_info *notice, void *user_data);

/** Receives every complete message of an endpoint, on its receive thread. */
typedef void (*kp_notify_cb_t)(const uint8_t *message, int32_t length, void *cb_obj);

/** The type of a read callback, which kp_tag_set_read_callback() refuses. */
typedef int (*kp_read_callback_t)(kp_tag_t *tag, void *user_data);

/** Says with a nonzero result that `element` is the one that `key` names. */
typedef int (*kplist_compare_t)(const void *key, const void *element);

/** Frees an element; free() itself is one. */
typedef void (*kplist_free_t)(void *element);

/** Prints an element. */
typedef void (*kplist_print_t)(const void *element);

/** @} */

/**
 * @defgroup kp_handle Handle
 * A handle is what an application creates first and passes to the other calls. It owns a dictionary
 * of tags, the lists of subscriptions and one notification endpoint with three threads, on one of
 * which the change callback runs, unless the application takes the notices itself, from a
 * descriptor (see kp_get_fd()). kp_close() ends it with all its tags.
 *
 * Tags may be created on any thread. The lookups and the walk read the dictionary without a lock
 * and rely on no tag being destroyed meanwhile.
 *
 * After fork() the handle stays the parent's, and the child's copy knows that: its descriptors are
 * closed, so that nobody takes the child for the parent. The child can read and write values
 * through the tags; kp_tag_notify() and announcements reach nobody and give 0; no notice arrives.
 * kp_tags_destroy(), kp_destroy() and kp_close() free memory and leave the counts, the file and the
 * socket to the parent. For anything else, new tags of its own too, the child makes a handle of its
 * own. So a program that turns itself into a daemon makes its handle and its tags after that. A
 * child of vfork(), posix_spawn() or a bare system call must not use the handle; what it executes
 * inherits no descriptor. When the callback forks and returns in the child, the child's thread
 * ends.
 * @{
 */

/**
 * Creates a handle and joins the endpoints of the device.
 *
 * `name` becomes the endpoint's name and the file name of its socket in `/run/providers/`, where it
 * replaces any file of that name. Give at most 92 characters: a longer name does not fit a socket
 * address and is cut, with a log line. A null or empty name makes up a random number, a name with a
 * "/" fails. Use a name once per device. `callback` may be null: change notices are then dropped,
 * announced topics still followed.
 *
 * Reads `KP_XLOG_USER_LEVEL` and sets the process's log level when the variable is set.
 *
 * Waits 10 ms for peers that start at the same moment. A dead socket file costs about 3 s more and
 * is removed. A socket that it may not connect to costs as much and stays. A stopped peer that
 * takes no more connections costs about 6 s. Peers that appear later are connected in the
 * background, as soon as they answer.
 *
 * Others need a moment to connect to a new handle: what is announced or notified before that does
 * not reach them. A provider does well to wait 100 ms between kp_new() and its first tag; without
 * the pause a topic can be announced to nobody, and followers of a pattern then miss it until they
 * subscribe again. A peer that tries just before the socket listens tries again a second later.
 *
 * Returns null when memory, a descriptor or a thread is missing, or `/run/providers/` can neither
 * be made nor used; errno tells why.
 */
KP_API kp_t *kp_new(const char *name, kp_callback_t callback);

/**
 * Stops and joins the endpoint's threads, removes its socket file and frees the handle.
 *
 * The handle's tags stay open; kp_close() closes them too. After kp_tags_destroy() a handle with a
 * pattern can still make a tag of a topic that is announced before this call; its count then stays
 * for ever, beyond the process's end, and with it the topic's file. Unsubscribe from the patterns
 * first, or call kp_close(). Must not be called from the change callback. Returns 0, or -1 for a
 * null handle.
 */
KP_API int32_t kp_destroy(kp_t *handle);

/**
 * Ends the use of a handle: stops its endpoint, destroys all its tags and frees it. Leaves nothing
 * open, whatever is announced meanwhile. Neither the handle nor any of its tags can be used
 * afterwards. Must not be called from the change callback, nor beside another call on the handle.
 * Returns 0, or -1 for a null handle.
 */
KP_API int32_t kp_close(kp_t *handle);

/** Stores a pointer for the change callback. Returns 0, or -1 for a null handle. */
KP_API int32_t kp_set_user_data(kp_t *handle, void *data);

/** Returns the pointer last stored, initially null; null for a null handle. */
KP_API void *kp_get_user_data(kp_t *handle);

/**
 * Returns the first entry of a bucket of the handle's dictionary; null for an empty bucket, a
 * bucket above 1023 or a null handle. The entry lives as long as its tag.
 */
KP_API kp_dict_entry *kp_lookup_head(kp_t *handle, uint32_t bucket);

/** Returns the handle's newest tag with exactly this topic; null when there is none, or for a null
    argument. */
KP_API kp_tag_t *kp_get_tag(kp_t *handle, const char *topic);

/**
 * Returns the next tag that a change notice flags and that needs a read, or null.
 *
 * Meant for the change callback. The notice selects buckets, so that tags that share a bucket with
 * the written topic are returned too when they need a read (see kp_tag_need_read()).
 *
 * A null result while the iterator stands inside a bucket ends that bucket only: when
 * `iter->bucket` is below 1024 afterwards, a further call goes on with the next one. To see every
 * tag, call until the result is null and `iter->bucket` is 1024 or more:
 * @code
 * kp_tag_iter_t iter = {0, NULL};
 * while (iter.bucket < KP_BUCKET_COUNT || iter.entry) {
 *     kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter);
 *     if (tag)
 *         use(tag);
 * }
 * @endcode
 */
KP_API kp_tag_t *kp_get_next_updated_tag(kp_t *handle, const kp_write_info *notice,
                                         kp_tag_iter_t *iter);

/**
 * Gives a descriptor that is readable while a change notice waits for kp_take_notice(), so that the
 * application can follow changes on its own thread, in its own loop.
 *
 * The first call switches the handle over for good: notices are merged from then on and the change
 * callback is not called any more, nor is it still running when the call returns. It makes the
 * descriptor readable at once, with the bits of all buckets, so that the first walk finds what came
 * before. Topics that providers announce are followed as ever. Must not be called from the change
 * callback; any other thread may call it at any time.
 *
 * The descriptor is an eventfd, closed on exec and not blocking; wait for it with poll() and the
 * like, and leave reading it to kp_take_notice(). It is the same in every call, and the handle
 * closes it. Returns -1 for a null handle, or with errno when there is no descriptor left.
 * @code
 * struct pollfd ready = {kp_get_fd(handle), POLLIN, 0};
 * while (poll(&ready, 1, -1) > 0) {
 *     kp_write_info notice;
 *     kp_tag_iter_t iter = {0, NULL};
 *     if (kp_take_notice(handle, &notice) != 1)
 *         continue;
 *     while (iter.bucket < KP_BUCKET_COUNT || iter.entry) {
 *         kp_tag_t *tag = kp_get_next_updated_tag(handle, &notice, &iter);
 *         if (tag)
 *             use(tag);
 *     }
 * }
 * @endcode
 */
KP_API int32_t kp_get_fd(kp_t *handle);

/**
 * Takes the notices that came since the last call, as one notice with the bits of all of them.
 *
 * Nothing is queued and no provider waits for it: a loop that stood still for an hour finds every
 * last value afterwards. The thread that walks the notice may subscribe and create tags meanwhile,
 * and destroy the tag that the walk has just returned. After it has destroyed others, or has
 * unsubscribed, it starts the walk again; what it has read already is not returned again.
 *
 * Returns 1 when there was something; 0 when there was nothing, `*notice` then has no bit set (this
 * can follow a readable descriptor); -1 for a null argument, which takes nothing.
 */
KP_API int32_t kp_take_notice(kp_t *handle, kp_write_info *notice);

/**
 * Switches the announcement of new provider tags on (nonzero) or off; it is off in a new handle.
 * The handle of a peer follows an announced topic when one of its patterns covers it. An
 * announcement reaches only the peers that are connected already: see kp_new() for the pause before
 * the first tag. Returns 0, or -1 for a null handle.
 */
KP_API int32_t kp_set_new_tag_notify(kp_t *handle, uint8_t enable);

/** Returns 1 when new provider tags are announced, else 0; 0 for a null handle. */
KP_API int32_t kp_is_new_tag_notify_enabled(kp_t *handle);

/**
 * Lists the topics of the store, at most three levels deep, in no particular order.
 * Returns the first node or null; the caller frees the list with kp_free_list_all_topics().
 */
KP_API kp_topic_node_t *kp_list_all_topics(void);

/** Frees a list of topics; does nothing for null. */
KP_API void kp_free_list_all_topics(kp_topic_node_t *list);

/** Prints the topics of the handle's tags on standard error, for debugging. */
KP_API void kp_dump_dict(kp_t *handle);

/** @} */

/**
 * @defgroup kp_tag Tags
 * A tag is one topic as one handle sees it, as its provider or as a consumer. The application owns
 * its tags. A tag must not be created or destroyed inside the change callback, nor destroyed while
 * another thread uses it; destroying it twice or through another handle is not detected. Provider
 * tags of one handle are created by one thread at a time.
 *
 * A topic is a relative path: levels of 1 to 255 bytes separated by "/". A level ".." is refused
 * with "topic is invalid", and so is a path through a link among the store's directories that is
 * neither root's nor the effective user's. A topic cannot be both a value and the beginning of
 * another one: `a` and `a/b` exclude each other.
 *
 * Empty levels vanish from the file's path, and from a topic that is matched against a pattern, but
 * not from the name: `a//b` and `a/b` are one value with two names, whose hashes differ. A consumer
 * of one never hears of writes by a provider of the other. Spell a topic the same everywhere,
 * without empty levels.
 *
 * Each of the two counts of open tags goes up to 255; the 256th tag of a role makes its count 0. If
 * the last tag of the other role is closed then, the file is removed although tags are open, and
 * who opens the topic afterwards gets a new file: the topic is split. Keep well below that number.
 * @{
 */

/**
 * Creates a provider tag: opens the topic's segment, creating it when missing, and declares type,
 * size and extra information. A value that the topic already had is discarded.
 *
 * `value_size` is the most bytes that a value may have, 1 to 4000; it matters only for the types of
 * variable size, but must never be above 4000. `extra_info` is handed to readers unread. Announces
 * the topic when kp_set_new_tag_notify() enabled it. Several tags for one topic are allowed.
 *
 * Returns the tag, or null for a null argument, a type above 13, a size of 0 or above 4000, or a
 * segment that cannot be opened.
 */
KP_API kp_tag_t *kp_tag_provider_new(kp_t *handle, const char *topic, uint32_t value_type,
                                     uint32_t value_size, uint32_t extra_info);

/**
 * Creates a consumer tag. The topic need not exist yet: its segment is then created empty, and
 * reads fail until a provider declares it. Returns the tag, or null for a null argument or a
 * segment that cannot be opened.
 */
KP_API kp_tag_t *kp_tag_consumer_new(kp_t *handle, const char *topic);

/**
 * Removes a tag from its handle, closes its segment and frees it. The last handle on a segment, in
 * any process, removes its file. Returns 0, or -1 for a null argument.
 */
KP_API int32_t kp_tag_destroy(kp_t *handle, kp_tag_t *tag);

/** Destroys every tag of the handle. Returns 0, or -1 for a null handle. */
KP_API int32_t kp_tags_destroy(kp_t *handle);

/** Is not supported on Linux: logs this at level FATAL and always returns -1. */
KP_API int32_t kp_tag_set_read_callback(kp_tag_t *tag, kp_read_callback_t callback);

/** Stores a pointer for the application. Returns 0, or -1 (with no message) for a null tag. */
KP_API int32_t kp_tag_set_user_data(kp_tag_t *tag, void *data);

/** Returns the pointer last stored, initially null; null for a null tag. */
KP_API void *kp_tag_get_user_data(kp_tag_t *tag);

/** Returns the tag's own string, which lives as long as the tag; null for a null tag. */
KP_API const char *kp_tag_get_topic(kp_tag_t *tag);

/** @} */

/**
 * @defgroup kp_value Values
 * Writing and reading the values of tags. Writing marks the topic in the handle's change notice;
 * kp_tag_notify() sends the marks of all writes since the last one. Reading marks the value as seen
 * by this tag, which kp_tag_has_read() and kp_tag_need_read() report.
 *
 * The writes and kp_tag_notify() of one handle come from one thread or are serialised by the
 * application; one process at a time writes a topic. None of these functions takes a lock, and all
 * but kp_tag_notify() and kp_tag_instant_write() may be called in the change callback.
 *
 * Values are stored as the bytes given, in the machine's own byte order, which is little-endian.
 * @{
 */

/**
 * Writes a value with the current time as timestamp and source timestamp, and quality 1.
 *
 * `size` matters only for the types of variable size, where it is capped at 4000; for a fixed size
 * the type's own number of bytes is read from `value`. A null `value` keeps the stored value and
 * refreshes its timestamps. Returns the bytes written (0 for a null `value`), or -1 for a null
 * argument, a topic that no provider declared, a size of 0, or a size above the declared maximum.
 */
KP_API int32_t kp_tag_write(kp_t *handle, kp_tag_t *tag, const void *value, uint32_t size);

/**
 * Writes a value with the caller's time, which must not be 0, as timestamp and source timestamp,
 * and quality 1. `size` must equal the size of a fixed-size type and is not capped. Returns the
 * bytes written, or -1. A time of 0 fails without a message.
 */
KP_API int32_t kp_tag_write_with_timestamp(kp_t *handle, kp_tag_t *tag, const void *value,
                                           uint32_t size, uint64_t timestamp);

/**
 * Writes like kp_tag_write(), with the caller's quality (its low 8 bits; #KP_QUALITY_KEEP keeps the
 * stored one) and source timestamp.
 */
KP_API int32_t kp_tag_write_with_source_params(kp_t *handle, kp_tag_t *tag, const void *value,
                                               uint32_t size, uint32_t quality, uint64_t source_ts);

/**
 * Writes a topic by its name, without a tag, and sends the handle's change notice at once.
 *
 * The segment is created when missing; type and extra information are overwritten and the size is
 * not compared with the declared maximum, so this is for topics without a provider. A topic written
 * only this way stays in the store. A null `value` stores no value. Returns 0, or -1 for a null
 * handle or topic, a size of 0 or above 4000, an unknown type, or a failing system call.
 */
KP_API int32_t kp_tag_instant_write(kp_t *handle, const char *topic, const void *value,
                                    uint32_t value_type, uint32_t size, uint8_t quality,
                                    uint64_t source_ts, uint32_t extra_info);

/**
 * Sends the change notice to every peer, even when nothing is marked, and clears the marks.
 *
 * Waits while a peer's receive buffer is full (about 278 notices that it has not read). What became
 * of a peer's copy is logged, not returned. Returns 0, or -1 for a null handle.
 */
KP_API int32_t kp_tag_notify(kp_t *handle);

/**
 * Reads the latest value into `buffer`, which must hold it whole, and marks it as seen.
 *
 * Waits up to about 100 us for a write in progress. A write that begins during the copy can tear
 * the value; kp_tag_read_consistent() excludes that. Returns the bytes of the value, or -1 for a
 * null argument, a topic that no provider declared, a topic without a value, a buffer that is too
 * small, or a write that does not end.
 */
KP_API int32_t kp_tag_read(kp_tag_t *tag, void *buffer, uint32_t buffer_size);

/** Reads like kp_tag_read() and gives the write's timestamp (optional). With a null `buffer` the
    value is marked as seen and its size returned, if `buffer_size` is large enough. */
KP_API int32_t kp_tag_read_with_timestamp(kp_tag_t *tag, void *buffer, uint32_t buffer_size,
                                          uint64_t *timestamp);

/**
 * Reads like kp_tag_read_with_timestamp() and gives the quality and the source timestamp, both
 * optional. When the read fails the quality is set to 0 and the source timestamp left alone.
 */
KP_API int32_t kp_tag_read_with_source_params(kp_tag_t *tag, void *buffer, uint32_t buffer_size,
                                              uint32_t *quality, uint64_t *source_ts);

/**
 * Reads like kp_tag_read_with_source_params(), but only a value that was whole at one moment, with
 * the quality, the timestamp and the source timestamp that belong to it. All outputs are optional.
 *
 * Tries again while writes get in the way, for about a millisecond, then fails with "shm read
 * fail"; the topic is not marked as seen then, and what `buffer` holds means nothing. Relies on one
 * writer at a time and on timestamps that don't fall; see docs/reliability.md for what remains.
 *
 * A writer that is stopped right after it has stored its timestamp leaves the value before beside
 * it, and a read then gives that value with the new timestamp. The write is not missed by it: as
 * soon as it goes on, kp_tag_has_read() says 0 again.
 */
KP_API int32_t kp_tag_read_consistent(kp_tag_t *tag, void *buffer, uint32_t buffer_size,
                                      uint32_t *quality, uint64_t *timestamp, uint64_t *source_ts);

/**
 * Reads a topic by its name, without a tag.
 *
 * `*value` receives a new buffer of `*size` bytes that the caller frees; the other outputs but
 * `value_type` are optional. Does not wait for a write in progress. Prints "access failed" on
 * standard output when the topic does not exist. Returns 0, or -1 for a null required output, a
 * missing or undeclared topic, or a failing system call.
 */
KP_API int32_t kp_tag_instant_read(const char *topic, void **value, uint32_t *value_type,
                                   uint32_t *size, uint8_t *quality, uint64_t *source_ts,
                                   uint32_t *extra_info);

/** Gives the timestamp of the last write (optional), whether a provider has declared the topic or
    not. Returns 0, or -1 for a null tag. */
KP_API int32_t kp_tag_get_last_write_timestamp(kp_tag_t *tag, uint64_t *timestamp);

/** Gives the type, the bytes of the current value and the extra information, each optional.
    Returns 0, or -1 for a null tag or an undeclared topic. */
KP_API int32_t kp_tag_get_value_info(kp_tag_t *tag, uint32_t *value_type, uint32_t *size,
                                     uint32_t *extra_info);

/** Works like kp_tag_get_value_info() with the topic's name instead of a tag. Prints "access
    failed" on standard output for a missing topic. */
KP_API int32_t kp_tag_instant_get_value_info(const char *topic, uint32_t *value_type,
                                             uint32_t *size, uint32_t *extra_info);

/** Gives the declared maximum size. Returns 0, or -1 for a null argument or an undeclared topic. */
KP_API int32_t kp_tag_get_max_value_size(kp_tag_t *tag, uint32_t *max_value_size);

/** Works like kp_tag_get_max_value_size() with the topic's name instead of a tag; the output is
    optional here. Prints "access failed" on standard output for a missing topic. */
KP_API int32_t kp_tag_instant_get_max_value_size(const char *topic, uint32_t *max_value_size);

/**
 * Gives the number of open provider and consumer tags of a topic in all processes, each optional.
 * Both are 8-bit counts, and a killed process leaves its own behind. Returns 0, or -1 for a null or
 * missing or undeclared topic.
 */
KP_API int32_t kp_tag_get_reference_count(const char *topic, uint32_t *providers,
                                          uint32_t *consumers);

/**
 * Returns 1 when this tag has seen the last write, else 0; 1 for a null tag. A write counts as seen
 * when its timestamp is not later than that of the one last seen. So after the wall clock was set
 * back, or after a timestamp of the caller's own that lies ahead, new writes count as seen until
 * the clock has caught up, and the walk of a notice passes over them. kp_tag_has_changed() notices
 * them, and reading the tag once makes the next write count as new again.
 */
KP_API int32_t kp_tag_has_read(kp_tag_t *tag);

/** Returns 1 when the quality is not 0 and kp_tag_has_read() says 0, else 0; 0 for a null tag. */
KP_API int32_t kp_tag_need_read(kp_tag_t *tag);

/**
 * Returns 1 when the timestamp of the last write is another one than that of this tag's own last
 * read or write, earlier or later, else 0; 0 for a null tag. So it notices a new write whatever the
 * clock did meanwhile, unless the write carries the very timestamp of the one before. A tag that
 * has neither read nor written gives 1 for any topic that was there before it, even one that was
 * never written: read it once.
 */
KP_API int32_t kp_tag_has_changed(kp_tag_t *tag);

/** Returns 1 when a value was written since the topic was declared, else 0; 0 for a null tag. */
KP_API int32_t kp_tag_has_value(kp_tag_t *tag);

/** Returns the wall clock in microseconds since the Unix epoch. */
KP_API uint64_t kp_get_timestamp_us(void);

/** @} */

/**
 * @defgroup kp_topic Topics
 * Subscribing to topics and patterns, and publishing by name. In a pattern the level `+` stands for
 * any one level, and `#` for one or more remaining levels: `a/+/c` covers `a/b/c`, and `a/#` covers
 * `a/b` and `a/b/c` but not `a`. Only the first character of a level counts, so `+x` means `+`.
 *
 * None of these functions may be called from the change callback.
 * @{
 */

/**
 * Follows a topic or a pattern: creates consumer tags for what exists now and, for a pattern, for
 * every covered topic that a provider announces later. What was written since the process's first
 * subscription counts as not yet read.
 *
 * What an earlier pattern covers already is not recorded again. A `+` of an earlier pattern covers
 * a `#` in its place, so subscribe to `a/#` before `a/+`. Returns 0 (also for a null handle), or -1
 * for a null topic, a tag that cannot be made, or a store that cannot be listed. A pattern stays
 * subscribed even then.
 */
KP_API int32_t kp_sub_topic(kp_t *handle, const char *topic);

/**
 * Creates the consumer tag for a topic if a subscribed pattern covers it. Returns 0, or -1 when
 * none does or the tag cannot be made.
 */
KP_API int32_t kp_sub_plain_topic(kp_t *handle, const char *topic);

/**
 * Cancels a subscription. Returns 0, always.
 *
 * For a plain topic the handle's tag for it is destroyed, a provider tag included, unless a pattern
 * still covers it. For a pattern all tags of the handle are destroyed, provider tags included, and
 * the remaining subscriptions made again, so keep providers and patterns on handles of their own.
 * Every pointer to a tag of the handle is invalid afterwards.
 *
 * A change whose notice arrives while the tags of a pattern are destroyed and made again finds no
 * tag; it is seen with the next notice only. To miss none, look at all tags once after this call,
 * by a walk with a notice in which every bit is set.
 */
KP_API int32_t kp_unsub_topic(kp_t *handle, const char *topic);

/**
 * Writes a value to a topic by name, with quality 1, through the handle's tag for it; a provider
 * tag is created on first use, with a maximum of 4000 bytes for the types of variable size. Marks
 * the topic but sends nothing. `value_size` matters only for the types of variable size.
 *
 * A tag that exists is used as it is, with its own type. Returns 0, or -1 for a null handle or
 * topic, an unknown type, a size of 0, or a failed write.
 */
KP_API int32_t kp_pub_topic(kp_t *handle, const char *topic, const void *value, uint32_t value_size,
                            uint32_t value_type, uint64_t source_ts);

/** Works like kp_pub_topic() and, when that succeeds, sends the handle's change notice. */
KP_API int32_t kp_pub_topic_instant(kp_t *handle, const char *topic, const void *value,
                                    uint32_t value_size, uint32_t value_type, uint64_t source_ts);

/** @} */

/**
 * @defgroup kp_store Store
 * The shared-memory files below `/dev/shm/zu-kp`, one of 4080 bytes for each topic, on which tags
 * stand. Most applications use tags instead. Calls on one kp_shm_t are serialised by the caller;
 * any number of processes may use one topic. Topics are as described with the tags.
 *
 * The instant functions reach a topic by name, open, map and close its file in each call and count
 * no reference. Those that read print "access failed" on standard output for a missing file.
 * @{
 */

/**
 * Opens a topic's segment, creating file and directories when missing, and counts the role (a
 * KP_ROLE_ constant; any other number is not counted). The current value counts as seen. Returns
 * the open segment, or null for a null, empty or invalid topic, or a failing system call.
 */
KP_API kp_shm_t *kp_shm_new(const char *topic, uint32_t role);

/**
 * Closes a segment, uncounts the role and removes the file when no count is left. Topic and role
 * are those of kp_shm_new(). Returns 0 (also for a null segment), or -1 for a null, empty or
 * invalid topic, which closes nothing.
 */
KP_API int32_t kp_shm_destroy(kp_shm_t *shm, const char *topic, uint32_t role);

/** Declares type, maximum size in bytes and extra information, and clears the value. Returns 0, or
    -1 for a null segment. */
KP_API int32_t kp_shm_set_provider_info(kp_shm_t *shm, uint32_t value_type, uint32_t max_value_size,
                                        uint32_t extra_info);

/** Sets quality and source timestamp to 0. Returns 0, or -1 for a null segment. */
KP_API int32_t kp_shm_init_source_params(kp_shm_t *shm);

/** Sets the timestamp of the write that this segment handle counts as seen. */
KP_API void kp_shm_set_last_update_ts(kp_shm_t *shm, uint64_t timestamp);

/** Returns the wall clock in microseconds since the Unix epoch. */
KP_API uint64_t kp_shm_get_timestamp_us(void);

/** Lists the topics of the store; see kp_list_all_topics(). */
KP_API kp_topic_node_t *kp_shm_list_all_topics(void);

/**
 * Writes a value of `size` bytes, which must equal the declared maximum for a fixed-size type and
 * not exceed it for the others. A null `value` refreshes timestamps and quality only. Returns the
 * bytes written, 0 for a null `value`, or -1.
 */
KP_API int32_t kp_shm_write(kp_shm_t *shm, const void *value, uint32_t size, uint64_t timestamp,
                            uint8_t quality, uint64_t source_ts);

/**
 * Reads the latest value into `buffer` (optional) and marks it as seen; `buffer_size` must be large
 * enough in any case. The outputs are optional. Returns the bytes of the value, or -1.
 */
KP_API int32_t kp_shm_read(kp_shm_t *shm, void *buffer, uint32_t buffer_size, uint64_t *timestamp,
                           uint8_t *quality, uint64_t *source_ts);

/** Gives the type, the bytes of the current value and the extra information, each optional.
    Returns 0, or -1 for a null segment or an undeclared topic. */
KP_API int32_t kp_shm_get_read_info(kp_shm_t *shm, uint32_t *value_type, uint32_t *size,
                                    uint32_t *extra_info);

/** Gives the declared maximum size. Returns 0, or -1 for a null argument or an undeclared topic. */
KP_API int32_t kp_shm_get_max_value_size(kp_shm_t *shm, uint32_t *max_value_size);

/** Gives the timestamp of the last write (optional), whether a provider has declared the topic or
    not. Returns 0, or -1 for a null segment. */
KP_API int32_t kp_shm_get_last_write_timestamp(kp_shm_t *shm, uint64_t *timestamp);

/** Returns 1 when this segment handle has seen the last write, else 0; 1 for null. */
KP_API int32_t kp_shm_has_read(kp_shm_t *shm);

/** Returns 1 when a value was written since the topic was declared, else 0. */
KP_API int32_t kp_shm_has_value(kp_shm_t *shm);

/** Returns the quality of the last write, 0 to 255; 0 for null. */
KP_API int32_t kp_shm_get_quality(kp_shm_t *shm);

/** Reads a topic into a new buffer; see kp_tag_instant_read(). `timestamp` is optional. */
KP_API int32_t kp_shm_instant_read(const char *topic, void **value, uint32_t *value_type,
                                   uint32_t *size, uint64_t *timestamp, uint8_t *quality,
                                   uint64_t *source_ts, uint32_t *extra_info);

/** Writes a topic, creating it when missing; see kp_tag_instant_write(). `size` is at most 4004,
    the bytes of the value area. */
KP_API int32_t kp_shm_instant_write(const char *topic, const void *value, uint32_t value_type,
                                    uint32_t size, uint64_t timestamp, uint8_t quality,
                                    uint64_t source_ts, uint32_t extra_info);

/** Gives the type, the bytes of the current value and the extra information, each optional.
    Returns 0, or -1 for a null, missing or undeclared topic. */
KP_API int32_t kp_shm_instant_get_value_info(const char *topic, uint32_t *value_type,
                                             uint32_t *size, uint32_t *extra_info);

/** Gives the declared maximum size (optional). Returns 0, or -1 for a null, missing or undeclared
    topic. */
KP_API int32_t kp_shm_instant_get_max_value_size(const char *topic, uint32_t *max_value_size);

/** Gives the counts of open providers and consumers, each optional. Returns 0, or -1 for a null,
    missing or undeclared topic. */
KP_API int32_t kp_shm_get_reference_count(const char *topic, uint32_t *providers,
                                          uint32_t *consumers);

/** @} */

/**
 * @defgroup kp_notification Notification
 * The endpoint on which a handle stands: a listening socket in `/run/providers/`, a connection to
 * and from every other endpoint of the device, and three threads, which block all signals. Most
 * applications use a handle instead. Every message is a kp_write_info or a kp_new_tag_info.
 *
 * An endpoint sends to at most 31 peers; a further one is refused. A connection that breaks is made
 * again only when the peer's socket file is created anew.
 * @{
 */

/**
 * Opens an endpoint and connects it to all others; name and waits are those of kp_new().
 *
 * `len` is the initial size of the receive buffer in bytes, above 0. `callback` receives each
 * message on the receive thread, with `cb_obj`. Returns the endpoint, or null; errno tells why
 * unless an argument is wrong.
 */
KP_API kp_notify_t *kp_notify_init(const char *name, int32_t len, kp_notify_cb_t callback,
                                   void *cb_obj);

/**
 * Sends one message to every connected peer; any thread may call it. Waits while a peer's receive
 * buffer is full. A failed send is logged and the next peer served. Returns 0, always.
 */
KP_API int32_t kp_notify_send(kp_notify_t *endpoint, const void *buf, uint32_t len);

/**
 * Stops the endpoint's threads, removes its socket file and frees it. Takes the address of the
 * pointer to it, which is invalid afterwards but not changed. Must not be called from the callback,
 * nor while another thread sends. Returns 0, always.
 */
KP_API int32_t kp_notify_close(kp_notify_t **endpoint_ref);

/** Replaces the receiver of messages; a null one drops them. Does nothing for a null endpoint. */
KP_API void kp_notify_set_callback(kp_notify_t *endpoint, kp_notify_cb_t callback);

/** @} */

/**
 * @defgroup kp_list Lists
 * A linked list of untyped elements with one lock, usable as list, stack and queue. The list never
 * owns its elements; the caller says how to free them. Only kplist_add(), kplist_append(), their
 * `_int` variants, kplist_remove_free() and kplist_free() take the lock themselves. Around the
 * others a caller that shares the list uses kplist_lock() and kplist_unlock(), and while it holds
 * the lock must not call one that takes it. A callback may be null only where its function says so.
 * A null list counts as an empty one.
 * @{
 */

/** Returns a new empty list, or null when out of memory. */
KP_API kplist *kplist_new(void);

/**
 * Inserts an element at the head. It sets no backward link, neither the new node's nor the old
 * first node's. Returns 0, always; out of memory inserts nothing.
 */
KP_API int32_t kplist_add(kplist *list, void *element);

/** Inserts an element at the tail, with its backward link. Returns 0, always; out of memory inserts
    nothing. */
KP_API int32_t kplist_append(kplist *list, void *element);

/** Inserts a new heap block that holds `value` at the head; the caller frees it as an element.
    Returns 0, always; out of memory inserts nothing. */
KP_API int32_t kplist_add_int(kplist *list, uint32_t value);

/** Inserts a new heap block that holds `value` at the tail; the caller frees it as an element.
    Returns 0, always; out of memory inserts nothing. */
KP_API int32_t kplist_append_int(kplist *list, uint32_t value);

/** Returns the first element that matches `key`, or null. */
KP_API void *kplist_find(kplist *list, kplist_compare_t compare, const void *key);

/**
 * Removes the first element that matches `key` and returns it, or null. Removing the last node sets
 * `tail` to that node's own backward link, which is null in a list filled by kplist_add(); don't
 * mix kplist_add() and kplist_append() on a list from which elements are removed.
 */
KP_API void *kplist_remove(kplist *list, kplist_compare_t compare, const void *key);

/** Removes the first element that matches `key` and frees it with `free_element` under the lock. */
KP_API void kplist_remove_free(kplist *list, kplist_compare_t compare, const void *key,
                               kplist_free_t free_element);

/** Frees the list, and its elements unless `free_element` is null. No thread may use the list any
    more. */
KP_API void kplist_free(kplist *list, kplist_free_t free_element);

/** Prints the elements on standard error between a START and an END line with `name`. */
KP_API void kplist_dump(kplist *list, kplist_print_t print, const char *name);

/** Removes the first element and returns it, or null. */
KP_API void *kplist_dequeue(kplist *list);

/** Returns the first element without removing it, or null. */
KP_API void *kplist_peek(kplist *list);

/** Locks the list. */
KP_API void kplist_lock(kplist *list);

/** Unlocks the list. */
KP_API void kplist_unlock(kplist *list);

/** Returns the number of elements. */
KP_API uint32_t kplist_size(kplist *list);

/** @} */

/**
 * @defgroup kp_dictionary Dictionary
 * Tags in 1024 buckets by the hash of their topic. The dictionary owns its entries, never the tags,
 * and checks for no duplicates. Additions and removals are serialised by the caller; lookups on
 * other threads may run beside an addition, not beside a removal.
 * @{
 */

/** Returns the topic's hash, 0 to 1023, the same in every process; 0 for null. */
KP_API uint32_t kp_hash(const char *topic);

/** Returns a new empty dictionary, or null when out of memory. */
KP_API kp_dict *kp_dict_new(void);

/** Frees the dictionary and its entries. Returns 0, or -1 for null. */
KP_API int32_t kp_dict_destroy(kp_dict *dict);

/** Enters a tag at the head of bucket `hash`. Returns 0, or -1 for a null argument, a hash above
    1023 or when out of memory. */
KP_API int32_t kp_dict_add_tag(kp_dict *dict, kp_tag_t *tag, uint32_t hash);

/** Returns the newest entry of a bucket, or null. */
KP_API kp_dict_entry *kp_dict_lookup_entry_head(kp_dict *dict, uint32_t hash);

/** Returns the newest entry of this very tag in bucket `hash`, or null. */
KP_API kp_dict_entry *kp_dict_lookup_entry(kp_dict *dict, uint32_t hash, kp_tag_t *tag);

/** Removes the newest entry of this very tag from bucket `hash`. Returns 0, or -1 when there is
    none or an argument is null or above 1023. */
KP_API int32_t kp_dict_remove_tag(kp_dict *dict, kp_tag_t *tag, uint32_t hash);

/** Prints the topics of all tags on standard error, for debugging. */
KP_API void kp_dict_dump_dict(kp_dict *dict);

/** Adds a heap copy of every tag's topic at the head of `list`; free them as its elements. */
KP_API void kp_dict_list_dict(kp_dict *dict, kplist *list);

/** @} */

/**
 * @defgroup kp_log Logging
 * Every diagnostic is one line on standard error: a colour, the level's name, the function, the
 * source line, the text, and the colour's end. One level for the whole process says what is
 * printed; kp_new() sets it from the environment variable `KP_XLOG_USER_LEVEL`. Any thread may log;
 * the parts of lines from several threads can mix.
 * @{
 */

/** Sets the process's user level; messages below it are suppressed. Values above 7 act as 7. */
KP_API void kp_xlog_set_user_level(uint32_t level);

/** Returns the process's user level, 4 (WARN) at load time. */
KP_API uint32_t kp_xlog_get_user_level(void);

/**
 * Returns the level whose upper-case name `str` begins with, so that "WARNING" is 4; the current
 * user level when there is none or `str` is null.
 */
KP_API uint32_t kp_xlog_get_level_by_str(const char *str);

/** Returns the constant name of a level, "ALL" to "OFF"; "" for a level above 7. */
KP_API const char *kp_xlog_get_level_str(uint32_t level);

/** @} */

/**
 * @defgroup kp_value_type Value types
 * Names and sizes of the value types. Pure lookups over constant data.
 * @{
 */

/** Returns the code of a type's exact name, or UINT32_MAX for an unknown or null name. */
KP_API uint32_t kp_str2type(const char *name);

/** Returns the constant name of a type code, or null for a code above 13. */
KP_API const char *kp_type2str(uint32_t value_type);

/** Returns the bytes of a value: the type's fixed size, or for the types of variable size `size`
    capped at 4000. Returns 0 for an unknown type. */
KP_API uint32_t kp_get_value_size(uint32_t value_type, uint32_t size);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
