// Configure-time probe: exits 0 when this machine's kernel lets a process set up an io_uring
// (not disabled by io_uring_disabled, not filtered by seccomp), so that the owner's tests are
// registered a second time on the io_uring back end.
#include <linux/io_uring.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

int main() {
    // The sizes the library asks for (src/net/owner/uring_poller.cpp): where locked memory
    // is short, a small ring could be had and the library's not.
    struct io_uring_params p;
    memset(&p, 0, sizeof(p));
    p.flags = IORING_SETUP_CQSIZE | IORING_SETUP_CLAMP;
    p.cq_entries = 65536;
    long fd = syscall(__NR_io_uring_setup, 4096, &p);
    if (fd < 0) {
        return 1;
    }
    close(static_cast<int>(fd));
    return (p.features & IORING_FEAT_EXT_ARG) != 0 ? 0 : 2;
}
