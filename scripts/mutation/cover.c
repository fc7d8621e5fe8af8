// Linked into the library that scripts/mutate measures. Every block of the library's code calls
// __sanitizer_cov_trace_pc(), which marks its place in the file that KP_COVER names. The file is
// shared memory, so what a killed child has run counts as well.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

extern char __ehdr_start __attribute__((visibility("hidden")));
static char *marks;
enum { kRoom = 4 << 20 };

__attribute__((constructor)) static void open_marks(void)
{
    const char *name = getenv("KP_COVER");
    int fd = name ? open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0600) : -1;
    if (fd == -1 || ftruncate(fd, kRoom) != 0)
        return;
    void *room = mmap(NULL, kRoom, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (room != MAP_FAILED)
        marks = room;
}

void __sanitizer_cov_trace_pc(void)
{
    long place = (char *)__builtin_return_address(0) - &__ehdr_start;
    if (marks && place >= 0 && place < kRoom)
        __atomic_store_n(&marks[place], 1, __ATOMIC_RELAXED);
}
