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

static int swapDirectories(const std::string &dir, const char *target)
{
    const int events = inotify_init1(IN_CLOEXEC);
    const uint32_t mask = IN_OPEN | IN_CLOSE_NOWRITE | IN_DELETE;
    std::map<int, std::string> watched; // watch descriptor -> directory name
    std::set<std::string> toSwap;
    DIR *stream = opendir(dir.c_str());
    while (const dirent *entry = stream ? readdir(stream) : nullptr)
        if (entry->d_type == DT_DIR && entry->d_name[0] != '.')
            toSwap.insert(
                    watched[inotify_add_watch(events, (dir + '/' + entry->d_name).c_str(), mask)]
                    = entry->d_name);
    // Watched only now: our own listing above is not the walk's.
    const int top
            = stream && closedir(stream) == 0 ? inotify_add_watch(events, dir.c_str(), mask) : -1;
    if (events < 0 || top < 0)
        return 2;
    std::puts("ready"), std::fflush(stdout);
    alignas(inotify_event) char buffer[64 * 1024];
    for (ssize_t size = 0, at = 0; !toSwap.empty(); at = 0) {
        if ((size = read(events, buffer, sizeof buffer)) <= 0)
            return 0;
        while (at < size && !toSwap.empty()) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
            at += sizeof(inotify_event) + event->len;
            // A directory the walk has just opened is swapped while the walk
            // is in it: what it removes next by name would be found through
            // the link. Any other event swaps one more directory, which the
            // walk may be about to enter.
            const auto opened = watched.find(event->wd);
            const bool inside = opened != watched.end() && (event->mask & IN_OPEN)
                    && toSwap.count(opened->second);
            const std::string name = inside ? opened->second : *toSwap.begin(),
                              path = dir + '/' + name;
            if ((inside || event->wd == top) && toSwap.erase(name)
                && rename(path.c_str(), (dir + "/.moved-" + name).c_str()) == 0)
                symlink(target, path.c_str());
        }
    }
    return 0;
}

int main(int argc, char **argv)
{
    if (argc == 4 && std::strcmp(argv[1], "swap-dirs") == 0)
        return swapDirectories(argv[2], argv[3]);
    if (argc != 4 || std::strcmp(argv[1], "plant-link") != 0)
        return 2;
    std::puts("ready"), std::fflush(stdout);
    for (;;)
        symlink(argv[3], argv[2]);
}
