// format_order_probe DISK COUNT: writes the partition table of a blank card COUNT times as the daemon's format does,
// and says of each which events of the card's partitions were there while fdisk had not ended yet: it is held at its
// end by the kernel (PTRACE_EVENT_EXIT) while they are read. What comes later stands behind the word "later". The
// daemon must not run.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/netlink.h>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char SCRIPT[] = "o\nn\np\n1\n\n\nt\nc\nw\n";  // as the daemon sends it, its NUL included
constexpr int EXIT_STOP = SIGTRAP | (PTRACE_EVENT_EXIT << 8);

[[noreturn]] void die(const char* what) {
    fprintf(stderr, "format_order_probe: %s: %s\n", what, strerror(errno));
    exit(1);
}

int open_uevents() {
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        die("uevents");
    }
    return fd;
}

// Takes what waits on the socket and prints the actions of the partitions' events: "add@/devices/.../mmcblk0p1".
void print_waiting(int uevents) {
    char text[4097];
    ssize_t length;
    while ((length = recv(uevents, text, sizeof text - 1, MSG_DONTWAIT)) > 0) {
        text[length] = '\0';
        if (strstr(text, "mmcblk0p") != nullptr) {
            printf("%.*s, ", static_cast<int>(strcspn(text, "@")), text);
        }
    }
}

// A card from the shop: no table, and a kernel that knows it. Its events are nobody's concern.
void make_blank(const char* disk, int uevents) {
    static const char zeros[4096] = {};
    const int fd = open(disk, O_RDWR | O_CLOEXEC | O_SYNC);
    if (fd < 0 || write(fd, zeros, sizeof zeros) != sizeof zeros || ioctl(fd, BLKRRPART) != 0) {
        die(disk);
    }
    close(fd);
    char text[4096];
    while (recv(uevents, text, sizeof text, MSG_DONTWAIT) > 0) {
    }
}

pid_t start_fdisk(const char* disk) {
    int input[2];
    if (pipe2(input, O_CLOEXEC) != 0 || write(input[1], SCRIPT, sizeof SCRIPT) != sizeof SCRIPT) {
        die("pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(input[0], STDIN_FILENO);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execlp("fdisk", "fdisk", disk, nullptr);
        _exit(99);
    }
    close(input[0]);
    close(input[1]);  // what is in the pipe stays there
    return child;
}

// True when the child stands at its end and false when it is gone; it goes on behind every other stop.
bool wait_for_end(pid_t child) {
    int status;
    while (waitpid(child, &status, 0) == child) {
        if (!WIFSTOPPED(status)) {
            return false;
        }
        if (status >> 8 == EXIT_STOP) {
            return true;
        }
        // The first stop is that of the exec, and no signal of anybody else's.
        ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACEEXIT);
        ptrace(PTRACE_CONT, child, nullptr, nullptr);
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: format_order_probe DISK COUNT\n");
        return 2;
    }
    const int uevents = open_uevents();
    for (int i = atoi(argv[2]); i > 0; --i) {
        make_blank(argv[1], uevents);
        const pid_t child = start_fdisk(argv[1]);
        if (!wait_for_end(child)) {
            fprintf(stderr, "format_order_probe: fdisk was not seen to end\n");
            return 1;
        }
        print_waiting(uevents);
        printf("end of fdisk");
        ptrace(PTRACE_CONT, child, nullptr, nullptr);
        int status;
        waitpid(child, &status, 0);
        printf(" with %d, later: ", WEXITSTATUS(status));
        print_waiting(uevents);
        printf("nothing more\n");
        fflush(stdout);
    }
    return 0;
}
