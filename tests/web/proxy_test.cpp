// The reverse proxy of docs/web.md. The test takes its commands and files from the document and
// does what a reader does with them, with Debian's nginx, on a loopback of its own and in copies of
// /etc and /var.
#include "testing/child.h"
#include "testing/store_provider.h"
#include "web/web_program.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace kptest;
using testing::HasSubstr;

namespace {

constexpr const char *kNginx = "/usr/sbin/nginx";
constexpr const char *kSecret = "secret";
constexpr const char *kSite = "https://press-7.example";

// Does what a service manager does for kp-web.socket: descriptor 3 is a socket with the unit's
// rights.
constexpr const char *kActivate = R"(
import configparser, grp, os, socket, sys
unit = configparser.ConfigParser()
unit.read(sys.argv[1])
wanted = unit["Socket"]
path = wanted["ListenStream"]
if os.path.exists(path):
    os.unlink(path)
listener = socket.socket(socket.AF_UNIX)
os.umask(0o777 ^ int(wanted["SocketMode"], 8))
listener.bind(path)
os.chown(path, -1, grp.getgrnam(wanted["SocketGroup"]).gr_gid)
listener.listen()
os.dup2(listener.fileno(), 3)
os.set_inheritable(3, True)
os.environ["LISTEN_PID"] = str(os.getpid())
os.environ["LISTEN_FDS"] = "1"
os.execv(sys.argv[2], sys.argv[2:])
)";

// Stands in front of the document's commands. It stands for a service manager, which is not there,
// and for the user who types a password. Everything that the commands write is thrown away.
constexpr const char *kPrelude = R"(
set -e
for folder in etc var; do
    mkdir -p /run/own/$folder/upper /run/own/$folder/work
    mount -t overlay overlay \
        -o lowerdir=/$folder,upperdir=/run/own/$folder/upper,workdir=/run/own/$folder/work /$folder
done
mkdir -p /run/recipe && cd /run/recipe
export TMPDIR=/run/recipe PATH=$PATH:/usr/sbin
systemctl() { echo "$*" >>/run/asked; }
openssl() {
    case $1 in
    passwd) command openssl "$@" secret ;;
    *) command openssl "$@" ;;
    esac
}
)";

// Says whether files can be given to nginx's group, which a user namespace may not have.
bool has_group_of_nginx()
{
    const group *group = getgrnam("www-data");
    const int fd = open("/run/of-nginx", O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    const bool has = group && fchown(fd, static_cast<uid_t>(-1), group->gr_gid) == 0;
    (void)close(fd);
    return has;
}

// Gives the processes that are started from now on a loopback of their own, where every port is
// free.
bool enter_own_network()
{
    ifreq loopback{};
    const std::string name = "lo";
    name.copy(loopback.ifr_name, name.size());
    loopback.ifr_flags = IFF_UP;
    if (unshare(CLONE_NEWNET) != 0)
        return false;
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool is_up = ioctl(fd, SIOCSIFFLAGS, &loopback) == 0;
    (void)close(fd);
    return is_up;
}

// Does what the document says. False when a command fails; /run/said then has what the commands
// said.
bool follow_the_document()
{
    const std::string commands =
        output_of("'" KP_COMMANDS_OF "' '" KP_WEB_DOCUMENT "' 'Other machines: a reverse proxy'");
    std::ofstream("/run/commands") << kPrelude << commands << "echo 'page = \"" KP_WEB_PAGE_FOLDER
                                   << "\"' >>/etc/kp-web/kp-web.conf\n";
    return std::system("bash /run/commands >/run/said 2>&1") == 0;
}

std::string said()
{
    return output_of("cat /run/said /var/log/nginx/error.log");
}

class WebProxy : public testing::Test {
  protected:
    void SetUp() override
    {
        if (access(kNginx, X_OK) != 0)
            GTEST_SKIP() << "nginx is not installed";
        if (!has_group_of_nginx())
            GTEST_SKIP() << "this user namespace has no other user";
        ASSERT_TRUE(enter_own_network());
        ASSERT_TRUE(follow_the_document()) << said();
        web_ = started({"/usr/bin/python3", "-c", kActivate, KP_WEB_SOCKET, KP_WEB});
        // The workers end with it, however it ends.
        nginx_ = started(
            {"/usr/bin/unshare", "--pid", "--fork", "--kill-child", kNginx, "-g", "daemon off;"});
        ASSERT_TRUE(wait_until([this] { return status("/healthz") == "200"; })) << said();
    }

    void TearDown() override
    {
        nginx_.reset();
        web_.reset();
        for (const char *folder : {"/etc", "/var"}) {
            if (std::filesystem::exists(std::string("/run/own") + folder)) {
                EXPECT_EQ(umount2(folder, MNT_DETACH), 0) << folder;
            }
        }
    }

    // Gives a command that asks through the proxy, with curl.
    static std::vector<std::string> curl(const std::string &path, const std::string &user)
    {
        return {KP_CURL,      "--silent",
                "--resolve",  "press-7.example:443:127.0.0.1",
                "--cacert",   "/etc/ssl/press-7.pem",
                "--max-time", "60",
                "--user",     user,
                kSite + path};
    }

    static std::string output(const std::string &path, const std::string &options,
                              const std::string &user = std::string("operator:") + kSecret)
    {
        std::string command;
        for (const std::string &word : curl(path, user))
            command += "'" + word + "' ";
        return output_of(command + options);
    }

    static std::string status(const std::string &path, const std::string &options = "",
                              const std::string &user = std::string("operator:") + kSecret)
    {
        return output(path, "-o /dev/null -w '%{http_code}' " + options, user);
    }

  private:
    static std::unique_ptr<ChildProcess> started(const std::vector<std::string> &command)
    {
        return std::make_unique<ChildProcess>(command);
    }

    std::unique_ptr<ChildProcess> web_;
    std::unique_ptr<ChildProcess> nginx_;
};

TEST_F(WebProxy, LetsInTheUsersOfTheRecipeAlone)
{
    EXPECT_EQ(status("/tags", "", "operator:wrong"), "401");
    EXPECT_EQ(status("/tags", "", "nobody:secret"), "401");
    EXPECT_EQ(output_of(KP_CURL " --silent --insecure -o /dev/null -w '%{http_code}' "
                                "--resolve press-7.example:443:127.0.0.1 " +
                        std::string(kSite) + "/"),
              "401");
    EXPECT_EQ(status("/tags"), "200");
}

TEST_F(WebProxy, GivesThePageAndTheTags)
{
    StoreProvider tag("plant/tag", KP_TYPE_INT32);
    tag.write(bytes_of<int32_t>(7), 1000);

    EXPECT_THAT(output("/", ""), HasSubstr("<title>Tags</title>"));
    EXPECT_THAT(output("/tags/plant/tag", ""), HasSubstr("\"value\":7,"));
    EXPECT_EQ(status("/main.js", "-H 'Origin: https://press-7.example'"), "200");
}

TEST_F(WebProxy, LetsKpWebRefuseOtherNamesAndPages)
{
    EXPECT_EQ(status("/tags", "-H 'Host: elsewhere.example'"), "403");
    EXPECT_EQ(status("/tags", "-H 'Origin: https://elsewhere.example'"), "403");
}

TEST_F(WebProxy, PassesEventsOnAtOnce)
{
    StoreProvider tag("plant/tag", KP_TYPE_INT32);
    tag.write(bytes_of<int32_t>(1), 1000);
    auto command = curl("/watch?q=plant/%23", std::string("operator:") + kSecret);
    command.insert(command.begin() + 1, "--no-buffer");
    ChildProcess client(command);
    const auto wait_for = [&client](const std::string &text) {
        for (auto line = client.hear(); line; line = client.hear())
            if (line->find(text) != line->npos)
                return true;
        return false;
    };
    ASSERT_TRUE(wait_for("event: current"));

    for (int32_t value = 2; value <= 4; ++value) {
        tag.write(bytes_of(value), 1000 + static_cast<uint64_t>(value));
        EXPECT_TRUE(wait_for("\"value\":" + std::to_string(value) + ","));
    }
}

TEST_F(WebProxy, IsTheOnlyOneThatMayConnectToTheSocket)
{
    const auto answer = [](const std::string &group) {
        return output_of("setpriv --reuid=nobody --regid=" + group +
                         " --clear-groups " KP_CURL
                         " --silent --unix-socket /run/kp-web.socket http://localhost/healthz");
    };

    EXPECT_EQ(answer("nogroup"), "");
    EXPECT_EQ(answer("www-data"), "ok\n");
}

} // namespace
