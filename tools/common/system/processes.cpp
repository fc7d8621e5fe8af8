#include "common/system/processes.h"

#include "common/text/text.h"
#include "layout/unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr ino_t kFirstPidNamespace = 0xEFFFFFFC; // fixed by the kernel
constexpr int kFieldsBeforeStart = 19;           // of the stat line, from the state on

std::string proc_path(pid_t pid, const char *name)
{
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::vector<pid_t> all_pids()
{
    std::vector<pid_t> pids;
    const UniqueDir proc(opendir("/proc"));
    while (const dirent *entry = proc ? proc.next() : nullptr)
        if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9')
            pids.push_back(static_cast<pid_t>(std::atoi(entry->d_name)));
    return pids;
}

// The fields of the stat line from the state on. The name before them, which may hold anything,
// ends at the last bracket. Empty for a process that has ended.
std::string stat_fields(pid_t pid)
{
    std::ifstream file(proc_path(pid, "stat"));
    std::string text;
    std::getline(file, text, '\0');
    const std::size_t end = text.rfind(") ");
    return end == std::string::npos ? std::string() : text.substr(end + 2);
}

char state_of(pid_t pid)
{
    const std::string fields = stat_fields(pid);
    return fields.empty() ? '?' : fields[0];
}

Mapper &mapper_of(std::vector<Mapper> &mappers, pid_t pid)
{
    const auto known = std::find_if(mappers.begin(), mappers.end(),
                                    [pid](const Mapper &mapper) { return mapper.pid == pid; });
    if (known != mappers.end())
        return *known;
    mappers.push_back({pid});
    return mappers.back();
}

void take_mapping(const char *line, pid_t pid, dev_t device, Mappers &found)
{
    std::array<char, 5> access{};
    unsigned major_number = 0;
    unsigned minor_number = 0;
    unsigned long inode = 0;
    if (std::sscanf(line, "%*x-%*x %4s %*x %x:%x %lu", access.data(), &major_number, &minor_number,
                    &inode) != 4)
        return;
    if (inode == 0 || makedev(major_number, minor_number) != device || access[3] != 's')
        return;
    Mapper &mapper = mapper_of(found.of_file[{device, inode}], pid);
    ++(access[1] == 'w' ? mapper.writable : mapper.read_only);
    mapper.is_store = std::strstr(line, "/zu-kp/") != nullptr;
    mapper.deleted = mapper.deleted || std::strstr(line, " (deleted)") != nullptr;
}

void take_descriptors(const UniqueDir &directory, int fd, pid_t pid, Descriptors &found)
{
    Descriptors::Use &use = found.of_process[pid];
    while (const dirent *entry = directory.next()) {
        std::array<char, 64> target{};
        if (readlinkat(fd, entry->d_name, target.data(), target.size() - 1) <= 0)
            continue;
        ++use.open;
        use.inotify += std::string_view(target.data()) == "anon_inode:inotify";
        unsigned long inode = 0;
        if (std::sscanf(target.data(), "socket:[%lu]", &inode) != 1)
            continue;
        auto &holders = found.of_socket[inode];
        if (holders.empty() || holders.back() != pid)
            holders.push_back(pid);
    }
}

} // namespace

Process process_of(pid_t pid)
{
    Process process;
    process.pid = pid;
    std::ifstream file(proc_path(pid, "comm"));
    std::getline(file, process.program);
    process.program = escaped(process.program);
    struct stat status;
    if (stat(("/proc/" + std::to_string(pid)).c_str(), &status) == 0)
        process.uid = status.st_uid;
    process.user = user_name(process.uid);
    process.state = state_of(pid);
    return process;
}

uint64_t start_of(pid_t pid)
{
    std::istringstream fields(stat_fields(pid));
    std::string skipped;
    for (int count = 0; count < kFieldsBeforeStart; ++count)
        fields >> skipped;
    uint64_t start = 0;
    fields >> start;
    return start;
}

std::string user_name(uid_t uid)
{
    const passwd *entry = getpwuid(uid);
    return entry ? entry->pw_name : std::to_string(uid);
}

std::string group_name(gid_t gid)
{
    const group *entry = getgrgid(gid);
    return entry ? entry->gr_name : std::to_string(gid);
}

std::string mode_text(mode_t mode)
{
    std::array<char, 8> out{};
    (void)std::snprintf(out.data(), out.size(), "%04o", static_cast<unsigned>(mode & 07777));
    return out.data();
}

std::vector<pid_t> children_of(pid_t parent)
{
    std::vector<pid_t> children = all_pids();
    std::erase_if(children, [parent](pid_t pid) {
        char state = '?';
        int of = 0;
        return std::sscanf(stat_fields(pid).c_str(), "%c %d", &state, &of) != 2 || of != parent;
    });
    return children;
}

// The line "Gid:" has the real, effective and saved group and the one for files, which counts.
std::optional<std::set<gid_t>> groups_of(pid_t pid)
{
    std::set<gid_t> groups;
    std::ifstream file(proc_path(pid, "status"));
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string name;
        fields >> name;
        gid_t group = 0;
        if (name == "Gid:" && fields >> group >> group >> group >> group)
            groups.insert(group);
        while (name == "Groups:" && fields >> group)
            groups.insert(group);
    }
    if (groups.empty())
        return std::nullopt;
    return groups;
}

std::string process_text(const Process &process)
{
    return std::to_string(process.pid) + " " + process.program + " (" + process.user + ")";
}

std::string hidden_processes_text(std::size_t count)
{
    return count == 1 ? "1 process shows only to root"
                      : std::to_string(count) + " processes show only to root";
}

std::span<const Mapper> Mappers::of(const FileId &file) const
{
    const auto found = of_file.find(file);
    return found == of_file.end() ? std::span<const Mapper>() : found->second;
}

unsigned Mappers::open_handles(const FileId &file) const
{
    unsigned open = 0;
    for (const Mapper &mapper : of(file))
        open += mapper.writable;
    return open;
}

Mappers find_mappers(dev_t device)
{
    Mappers found;
    const std::vector<pid_t> pids = all_pids();
    if (pids.empty()) // not even this process is seen
        found.unreadable.push_back(getpid());
    for (const pid_t pid : pids) {
        std::FILE *maps = std::fopen(proc_path(pid, "maps").c_str(), "re");
        if (!maps) {
            if (errno != ENOENT && errno != ESRCH)
                found.unreadable.push_back(pid);
            continue;
        }
        char *line = nullptr;
        std::size_t room = 0;
        for (; getline(&line, &room, maps) > 0; ++found.mappings[pid])
            take_mapping(line, pid, device, found);
        const bool failed = std::ferror(maps) != 0; // access is checked at the read
        std::free(line);
        (void)std::fclose(maps);
        if (failed)
            found.unreadable.push_back(pid);
    }
    return found;
}

Descriptors find_descriptors()
{
    Descriptors found;
    for (const pid_t pid : all_pids()) {
        const UniqueDir directory(opendir(proc_path(pid, "fd").c_str()));
        if (!directory) {
            if (errno != ENOENT && errno != ESRCH)
                found.unreadable.push_back(pid);
            continue;
        }
        const UniqueFd fd(open(proc_path(pid, "fd").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (fd)
            take_descriptors(directory, fd.get(), pid, found);
    }
    return found;
}

std::optional<std::size_t> descriptor_limit(pid_t pid)
{
    constexpr std::string_view name = "Max open files";
    std::ifstream file(proc_path(pid, "limits"));
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name)) // then the soft limit; a hard one, which is no matter here
            if (const std::size_t limit = std::strtoul(line.c_str() + name.size(), nullptr, 10))
                return limit;
    return std::nullopt;
}

bool sees_all_processes()
{
    struct stat status;
    return stat("/proc/self/ns/pid", &status) == 0 && status.st_ino == kFirstPidNamespace;
}

// The first process belongs to root and has every capability, so who may look into it may look into
// all of them; where /proc hides processes, it is hidden too.
bool may_look_into_all_processes()
{
    const UniqueFd fd(open("/proc/1/maps", O_RDONLY | O_CLOEXEC));
    char byte = 0;
    return fd && read(fd.get(), &byte, 1) == 1;
}

} // namespace kp::tool
