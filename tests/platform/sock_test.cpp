// The socket layer: each helper's result on a real descriptor and on a bad one.
#include <gtest/gtest.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/sock.h"

using namespace QUOLNET;

namespace {

const int kBadFd = 1000000;  // never open in a test process

int SockOpt(int fd, int opt) {
    int v = 0;
    socklen_t len = sizeof(v);
    getsockopt(fd, SOL_SOCKET, opt, &v, &len);
    return v;
}

TEST(Sock, OpenTcpGivesIPv4StreamSocket) {
    int fd = sock_open_tcp();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(AF_INET, SockOpt(fd, SO_DOMAIN));
    EXPECT_EQ(SOCK_STREAM, SockOpt(fd, SO_TYPE));
    EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(0, sock_close(fd));
}

TEST(Sock, OpenIPv6StreamSocket) {
    int fd = sock_open(AF_INET6, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(AF_INET6, SockOpt(fd, SO_DOMAIN));
    EXPECT_EQ(SOCK_STREAM, SockOpt(fd, SO_TYPE));
    EXPECT_EQ(0, sock_close(fd));
}

TEST(Sock, OpenFailsWithMinusOne) {
    errno = 0;
    EXPECT_EQ(-1, sock_open(-1, SOCK_STREAM, 0));
    EXPECT_NE(0, errno);
}

TEST(Sock, SetNonblockOnAndOff) {
    int fd = sock_open_tcp();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, sock_set_nonblock(fd, 1));
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(0, sock_set_nonblock(fd, 0));
    EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(0, sock_close(fd));
}

TEST(Sock, SetNonblockBadDescriptor) {
    errno = 0;
    EXPECT_EQ(-1, sock_set_nonblock(kBadFd, 1));
    EXPECT_EQ(EBADF, errno);
}

TEST(Sock, SetBufferSizes) {
    int fd = sock_open_tcp();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, sock_set_sendbuff(fd, 64 * 1024));
    EXPECT_EQ(0, sock_set_recvbuff(fd, 64 * 1024));
    // The kernel doubles the requested value.
    EXPECT_EQ(128 * 1024, SockOpt(fd, SO_SNDBUF));
    EXPECT_EQ(128 * 1024, SockOpt(fd, SO_RCVBUF));
    EXPECT_EQ(0, sock_close(fd));
}

TEST(Sock, SetBufferSizesBadDescriptor) {
    errno = 0;
    EXPECT_EQ(-1, sock_set_sendbuff(kBadFd, 4096));
    EXPECT_EQ(EBADF, errno);
    errno = 0;
    EXPECT_EQ(-1, sock_set_recvbuff(kBadFd, 4096));
    EXPECT_EQ(EBADF, errno);
}

TEST(Sock, SetBufferSizesOnNonSocket) {
    int p[2];
    ASSERT_EQ(0, pipe(p));
    errno = 0;
    EXPECT_EQ(-1, sock_set_sendbuff(p[0], 4096));
    EXPECT_EQ(ENOTSOCK, errno);
    EXPECT_EQ(-1, sock_set_recvbuff(p[0], 4096));
    close(p[0]);
    close(p[1]);
}

TEST(Sock, CloseTwiceFailsSecondTime) {
    int fd = sock_open_tcp();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, sock_close(fd));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    errno = 0;
    EXPECT_EQ(-1, sock_close(fd));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, sock_close(-1));
}

}  // namespace
