#include "store/removal.h"

#include "layout/field.h"
#include "layout/keep_errno.h"
#include "store/file_lock.h"
#include "store/store_path.h"
#include "support/high_fd.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kp {

namespace {

constexpr std::size_t kHelperStack = std::size_t{128} * 1024;

// The helper below closes so many descriptors in its own table: more than a walk needs at once.
constexpr int kFirstFreed = 3;
constexpr int kLastFreed = 7;

// Removes the name if it still leads to the file. The last look before the deed; who may write in
// the directory could still put another of its own files there.
void unlink_if_same(const StorePlace &place, FileId file)
{
    struct stat status;
    if (fstatat(place.directory.get(), place.name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        FileId{status.st_dev, status.st_ino} == file)
        (void)unlinkat(place.directory.get(), place.name, 0);
}

bool is_out_of_descriptors()
{
    return errno == EMFILE;
}

// False when no descriptor is free.
bool try_remove_unused(const char *path, const kp_shm_t &shm)
{
    const auto place = find_place(path);
    if (!place)
        return !is_out_of_descriptors();
    const UniqueFd fd = high_fd(openat(place->directory.get(), place->name,
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd && is_out_of_descriptors())
        return false;
    if (fd && file_state(fd).id != shm.file)
        return true;
    // Without a descriptor there is no lock: what this user may not read is removed unlocked.
    const FileLock lock(fd);
    if (load_relaxed(shm.mem->refs).sum() == 0)
        unlink_if_same(*place, shm.file);
    return true;
}

struct Removal {
    const char *path;
    const kp_shm_t &shm;
};

// Runs on a thread that has a table of descriptors of its own from here on, in which closing some
// takes them from nobody.
void *remove_in_own_table(void *argument)
{
    const auto &removal = *static_cast<const Removal *>(argument);
    if (unshare(CLONE_FILES) != 0)
        return nullptr;
    for (int fd = kFirstFreed; fd <= kLastFreed; ++fd)
        (void)close(fd);
    (void)try_remove_unused(removal.path, removal.shm);
    return nullptr;
}

void remove_without_descriptor(Removal removal)
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return;
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_attr_setstacksize(&attributes, kHelperStack);
    (void)pthread_sigmask(SIG_SETMASK, &all,
                          &before); // the application's handlers run on its threads
    pthread_t helper;
    if (pthread_create(&helper, &attributes, remove_in_own_table, &removal) == 0)
        (void)pthread_join(helper, nullptr);
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    (void)pthread_attr_destroy(&attributes);
}

// Whether nobody has counted a handle in or declared anything. What is not there yet counts as
// zero.
bool is_untouched(const UniqueFd &fd)
{
    struct {
        ReferenceCounts refs;
        WriteState state;
    } found{};
    static_assert(offsetof(Segment, state) == offsetof(Segment, refs) + sizeof(ReferenceCounts));
    return pread(fd.get(), &found, sizeof(found), offsetof(Segment, refs)) >= 0 &&
           found.refs.sum() == 0 && found.state.flags == 0;
}

} // namespace

void remove_unused(const char *path, const kp_shm_t &shm)
{
    if (!try_remove_unused(path, shm))
        remove_without_descriptor({path, shm});
}

void remove_leftover(const char *path, const UniqueFd &fd)
{
    const KeepErrno keep;
    const FileLock lock(fd);
    if (!is_untouched(fd))
        return;
    if (const auto place = find_place(path))
        unlink_if_same(*place, file_state(fd).id);
}

} // namespace kp
