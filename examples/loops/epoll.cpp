// Ten changes with epoll.
#include "follow.h"

#include <sys/epoll.h>
#include <unistd.h>

int main()
{
    Follower follower;
    const int loop = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(loop, EPOLL_CTL_ADD, follower.node.fd(), &event);
    do
        epoll_wait(loop, &event, 1, -1);
    while (follower.take_changes());
    close(loop);
}
