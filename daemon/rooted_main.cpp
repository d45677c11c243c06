// tavirn-rooted: the same daemon in a world of its own below one directory, for an ordinary PC. The daemon
// detaches before it does anything else and then only logs, so what a person can mend is looked at first, and
// told on standard error.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <getopt.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "daemon/daemon.h"
#include "daemon/rtsp_request.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/paths_rooted.h"

namespace {

constexpr char kName[] = "tavirn-rooted";
constexpr int kExitNoWorld = 1;
constexpr int kExitUsage = 2;

/// How long a daemon that has been told to end may still be there: it rests for a second before it looks.
constexpr std::chrono::seconds kLeave{2};
constexpr useconds_t kLookUs = 20'000;
/// How long the signal that tells it may be on its way.
constexpr useconds_t kArrivalUs = 100'000;

constexpr char kHelp[] =
    "Usage: tavirn-rooted [--root DIRECTORY] [--foreground]\n"
    "\n"
    "The playback daemon in a world of its own: every path of tavirn lies below one directory.\n"
    "tavirn-record makes such a world; tavirn-ctl and tavirn-view take the same --root or TAVIRN_ROOT.\n"
    "\n"
    "  --root DIRECTORY  the world (TAVIRN_ROOT when not given); / is that of tavirn itself\n"
    "  --foreground      does not detach, and logs to standard error as well; Ctrl-C ends it.\n"
    "                    With --root / it shows a device's log\n"
    "  --version         prints the version\n"
    "  -h, --help        prints this\n"
    "\n"
    "Exit codes: 0 done, 1 no world there, or not for this user, 2 wrong usage, 5 another daemon serves it,\n"
    "6 its control socket cannot be had.\n";

int refuse(int code, const std::string& sentence) {
    std::fprintf(stderr, "%s: %s\n", kName, sentence.c_str());
    return code;
}

/// The file of `path` and why it cannot be used, from errno.
std::string because(const std::string& path) {
    return path + " (" + std::strerror(errno) + ")";
}

int refuseAsServed(pid_t pid, const std::string& otherwise = "") {
    if (pid <= 0) return refuse(kExitPidFile, "a daemon serves this world: use it"); // a container's
    const std::string number = std::to_string(pid);
    return refuse(kExitPidFile, "a daemon serves this world, process " + number +
                                    ": use it, or end it with kill " + number + otherwise);
}

/// Whether somebody takes connections on the control socket, and who. Does not wait: a full backlog is
/// somebody's too. The record of no known type costs a daemon nothing; without one it would rest a second.
bool isServed(pid_t& pid) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, paths().controlSocket, sizeof address.sun_path - 1);
    const bool connected = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    const bool served = connected || errno == EAGAIN;
    ucred peer{};
    socklen_t size = sizeof peer;
    if (connected && getsockopt(probe, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) pid = peer.pid;
    const rtsp_request nothing{};
    if (connected) (void)send(probe, &nothing, sizeof nothing, MSG_NOSIGNAL); // it may have gone since
    close(probe);
    return served;
}

/// Whether the pid file's daemon has left, after a while for one that is leaving. Its pid file goes with it,
/// while the process may stay, as a zombie, where nobody reaps it.
bool hasLeft(pid_t pid, const std::string& pidFile) {
    const auto deadline = std::chrono::steady_clock::now() + kLeave;
    while (kill(pid, 0) == 0 || errno != ESRCH) {
        const bool left = access(pidFile.c_str(), F_OK) != 0;
        if (!left && std::chrono::steady_clock::now() >= deadline) return false;
        usleep(kLookUs); // and once more behind the pid file, after which the shared memory goes
        if (left) return true;
    }
    return true;
}

/// The daemon itself removes a pid file whose process has gone. One that has been told to end takes no
/// connections from that moment on, but keeps its pid file for up to a second.
int lookForAnotherDaemon(const std::string& pidFile) {
    pid_t pid = 0;
    if (isServed(pid)) {
        usleep(kArrivalUs);
        if (isServed(pid)) return refuseAsServed(pid);
    }
    std::ifstream file(pidFile);
    if (!file) {
        if (errno == ENOENT) return 0;
        return refuse(kExitPidFile,
                      "cannot read " + because(pidFile) + ": remove it if no daemon serves this world");
    }
    pid = 0;
    file >> pid;
    if (pid == 0)
        return refuse(kExitPidFile,
                      pidFile + " holds no process id: remove it if no daemon serves this world");
    if (hasLeft(pid, pidFile)) return 0;
    return refuseAsServed(pid, "; if that is no daemon, remove " + pidFile);
}

/// Without the card's state every open fails. On a device the driver's files may come later.
int lookAtCardState(const std::string& root) {
    if (root == "/") return 0;
    for (const char* file : {paths().cardDetect, paths().cardReadOnly}) {
        if (access(file, R_OK) != 0)
            return refuse(kExitNoWorld, "no card state " + because(file) +
                                            "; make it with tavirn-record --root " + root +
                                            ", or name another world");
    }
    return 0;
}

/// What would keep the daemon from serving the world that paths() names: 0, or the exit code after one
/// sentence.
int lookAtWorld(const std::string& root) {
    const std::string socket = paths().controlSocket;
    if (socket.size() >= sizeof(sockaddr_un::sun_path))
        return refuse(kExitSocket, "the control socket's path, " + socket + ", is longer than " +
                                       std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
                                       " bytes: choose a directory with a shorter path");
    if (access(paths().ipcKey, F_OK) != 0)
        return refuse(kExitNoWorld, "no world below " + root + ": no key file " + because(paths().ipcKey) +
                                        "; make one with tavirn-record --root " + root + ", or name another");
    for (const char* file : {paths().pidFile, paths().controlSocket}) {
        const std::string directory = std::filesystem::path(file).parent_path();
        if (access(directory.c_str(), W_OK | X_OK) != 0)
            return refuse(kExitNoWorld, "cannot write to " + because(directory) +
                                            ": run it as the user whose world this is, or name another");
    }
    if (const int code = lookAtCardState(root); code != 0) return code;
    if (const int code = lookForAnotherDaemon(paths().pidFile); code != 0) return code;
    struct stat there {};
    if (lstat(socket.c_str(), &there) == 0 && !S_ISSOCK(there.st_mode))
        return refuse(kExitSocket, socket + " is no socket, and in the control socket's way: move it");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const option options[] = {{"root", required_argument, nullptr, 'r'},
                              {"foreground", no_argument, nullptr, 'f'},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'v'},
                              {}};
    const char* named = std::getenv("TAVIRN_ROOT");
    Detach detach = Detach::yes;
    opterr = 0;
    for (int given; (given = getopt_long(argc, argv, "h", options, nullptr)) != -1;) {
        switch (given) {
        case 'r':
            named = optarg;
            break;
        case 'f':
            detach = Detach::no;
            break;
        case 'h':
            return std::fputs(kHelp, stdout) < 0;
        case 'v':
            return std::printf("%s %s\n", kName, TAVIRN_VERSION) < 0;
        default:
            return refuse(kExitUsage, std::string("cannot take ") + argv[optind - 1] + "; see --help");
        }
    }
    if (optind < argc) return refuse(kExitUsage, std::string("cannot take ") + argv[optind] + "; see --help");
    if (named == nullptr || *named == '\0')
        return refuse(kExitUsage, "no world is named: give --root, or set TAVIRN_ROOT, to a directory that "
                                  "tavirn-record has made");
    // Detaching leaves the directory that a relative path starts from.
    const std::string root = std::filesystem::absolute(named);
    setPathsRoot(root.c_str());
    if (const int code = lookAtWorld(root); code != 0) return code;
    if (detach == Detach::no) openlog(kName, LOG_PERROR, LOG_USER);
    return runDaemon(detach);
}
