// Runs a command on a system that does not know openat2, as older kernels and containers do not,
// where the library enters the levels of a path one by one.
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: without_openat2 COMMAND [ARGUMENT]...\n");
        return 2;
    }
    std::array filter{
        sock_filter(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))),
        sock_filter(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1)),
        sock_filter(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS)),
        sock_filter(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)),
    };
    sock_fprog program{filter.size(), filter.data()};
    // Who is not root may set a filter only when no program that it starts can gain rights.
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        std::perror("without_openat2: seccomp");
        return 1;
    }
    (void)execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    return 127;
}
