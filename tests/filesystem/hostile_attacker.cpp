// The other side of the hostile tests: a process, often of another user,
// that changes a tree while the library works on it.
//
// hostile_attacker swap-dirs DIR TARGET
//     Watches DIR and the directories in it. A directory of DIR that is
//     opened, and one more at each event in DIR itself (an entry opened,
//     listed or removed), is moved to a hidden name beside it, and a
//     symbolic link to TARGET put in its place. Ends when no directory is
//     left to swap.
// hostile_attacker plant-link NAME TARGET
//     Creates the symbolic link NAME -> TARGET over and over, as fast as it
//     can, until it is killed.
//
// Either prints "ready" once it is in place. Exit code 2 on bad usage or
// when it cannot start.

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include <dirent.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

void ready()
{
    std::puts("ready");
    std::fflush(stdout);
}

// Moves DIR/name to a hidden name and puts a link to target in its place.
void swap(const std::string &dir, const std::string &name, const std::string &target)
{
    const std::string path = dir + '/' + name;
    if (rename(path.c_str(), (dir + "/.moved-" + name).c_str()) == 0)
        symlink(target.c_str(), path.c_str());
}

int swapDirectories(const std::string &dir, const std::string &target)
{
    const int events = inotify_init1(IN_CLOEXEC);
    if (events < 0)
        return 2;
    const uint32_t mask = IN_OPEN | IN_CLOSE_NOWRITE | IN_DELETE;
    std::map<int, std::string> watched; // watch descriptor -> directory name
    if (DIR *stream = opendir(dir.c_str())) {
        while (const dirent *entry = readdir(stream)) {
            if (entry->d_type == DT_DIR && entry->d_name[0] != '.')
                watched[inotify_add_watch(events, (dir + '/' + entry->d_name).c_str(), mask)]
                        = entry->d_name;
        }
        closedir(stream);
    }
    std::set<std::string> toSwap;
    for (const auto &[wd, name] : watched)
        toSwap.insert(name);
    // Watched only now: our own listing above is not the walk's.
    const int top = inotify_add_watch(events, dir.c_str(), mask);
    if (top < 0)
        return 2;
    alignas(inotify_event) char buffer[64 * 1024];
    ready();
    while (!toSwap.empty()) {
        const ssize_t size = read(events, buffer, sizeof buffer);
        if (size <= 0)
            return 0;
        for (ssize_t at = 0; at < size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
            at += sizeof(inotify_event) + event->len;
            // A directory the walk has just opened is swapped while the walk
            // is in it: what it removes next by name would be found through
            // the link. Any other event swaps one more directory, which the
            // walk may be about to enter.
            const auto opened = watched.find(event->wd);
            const bool inside = opened != watched.end() && (event->mask & IN_OPEN)
                    && toSwap.count(opened->second);
            const std::string name = inside ? opened->second : *toSwap.begin();
            if (inside || event->wd == top) {
                toSwap.erase(name);
                swap(dir, name, target);
                if (toSwap.empty())
                    break;
            }
        }
    }
    return 0;
}

[[noreturn]] void plantLink(const std::string &name, const std::string &target)
{
    ready();
    for (;;)
        symlink(target.c_str(), name.c_str());
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    if (std::strcmp(argv[1], "swap-dirs") == 0)
        return swapDirectories(argv[2], argv[3]);
    if (std::strcmp(argv[1], "plant-link") == 0)
        plantLink(argv[2], argv[3]);
    return 2;
}
