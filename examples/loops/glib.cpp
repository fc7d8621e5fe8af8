// Ten changes with GLib.
#include "follow.h"

#include <glib-unix.h>

namespace {

struct Program {
    Follower follower;
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
};

gboolean on_readable(gint, GIOCondition, gpointer data)
{
    auto &program = *static_cast<Program *>(data);
    if (program.follower.take_changes())
        return G_SOURCE_CONTINUE;
    g_main_loop_quit(program.loop);
    return G_SOURCE_REMOVE;
}

} // namespace

int main()
{
    Program program;
    g_unix_fd_add(program.follower.node.fd(), G_IO_IN, on_readable, &program);
    g_main_loop_run(program.loop);
    g_main_loop_unref(program.loop);
}
