#include "support/broker.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <ev.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr ev_tstamp BEAT_S = 0.005;

int64_t longest_ms;

[[noreturn]] void die(const char* what) {
    perror(what);
    abort();
}

int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) < 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) < 0) {
        die("free port");
    }
    close(fd);
    return ntohs(address.sin_port);
}

bool takes_connections(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const bool result = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return result;
}

void on_beat(struct ev_loop*, ev_timer*, int) {}

}  // namespace

Broker::Broker() : port_(free_port()) {
    // In memory where that can be, as on a camera: the broker waits for each of its files to be on the disk.
    char in_memory[] = "/dev/shm/broker.XXXXXX";
    char on_disk[] = "/tmp/broker.XXXXXX";
    const char* name = mkdtemp(in_memory);
    if (name == nullptr) {
        name = mkdtemp(on_disk);
    }
    if (name == nullptr) {
        die("mkdtemp");
    }
    folder_ = name;
    std::ofstream(folder_ + "/conf")
        << "per_listener_settings false\nallow_anonymous true\nuser root\nset_tcp_nodelay true\n"
        << "persistence true\nautosave_on_changes true\nautosave_interval 1\n"
        << "persistence_location " << folder_ << "/\n"
        << "listener 0 " << folder_ << "/sock\n"
        << "listener " << port_ << " 127.0.0.1\n";
    setenv("VESK_BUS", address().c_str(), 1);
    start();
}

Broker::~Broker() {
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void Broker::start() {
    pid_ = fork();
    if (pid_ < 0) {
        die("fork");
    }
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int log = open((folder_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(log, 1);
        dup2(log, 2);
        const std::string configuration = folder_ + "/conf";
        execl("/usr/sbin/mosquitto", "mosquitto", "-c", configuration.c_str(), nullptr);
        _exit(127);
    }
    const int64_t deadline_ms = test_now_ms() + 10'000;
    while (!takes_connections(folder_ + "/sock")) {
        if (test_now_ms() > deadline_ms || waitpid(pid_, nullptr, WNOHANG) != 0) {
            die("the broker does not start");
        }
        usleep(5'000);
    }
}

void Broker::configure(const std::string& lines) {
    std::ofstream(folder_ + "/conf", std::ios::app) << lines;
    kill();
    start();
}

void Broker::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void Broker::freeze() {
    if (pid_ <= 0) {
        die("freeze: no broker");  // -1 would be everybody's
    }
    int status = 0;
    ::kill(pid_, SIGSTOP);
    if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status)) {
        die("freeze");
    }
}

void Broker::go_on() {
    if (pid_ <= 0) {
        die("go on: no broker");
    }
    ::kill(pid_, SIGCONT);
}

void Broker::forget() {
    kill();
    std::filesystem::remove(folder_ + "/mosquitto.db");
    start();
}

bool Broker::has_saved(const std::string& bytes) const {
    std::ifstream file(folder_ + "/mosquitto.db", std::ios::binary);
    const std::string all{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    return all.find(bytes) != std::string::npos;
}

std::string Broker::address() const {
    return "unix:" + folder_ + "/sock";
}

std::string Broker::folder() const {
    return folder_;
}

int Broker::port() const {
    return port_;
}

// Asked of a shell: under an emulator this process would be shown the emulated machine's libraries.
std::string broker_plugin(const std::string& name) {
    FILE* shell = popen(("echo -n /usr/lib/*/" + name).c_str(), "re");
    char path[256] = "";
    if (shell == nullptr || fgets(path, sizeof(path), shell) == nullptr) {
        die("popen");
    }
    pclose(shell);
    return path;
}

bool run_until(const std::function<bool()>& done, int limit_ms) {
    struct ev_loop* loop = ev_default_loop(0);
    ev_timer beat;
    ev_timer_init(&beat, on_beat, BEAT_S, BEAT_S);
    ev_now_update(loop);
    ev_timer_start(loop, &beat);
    const int64_t deadline_ms = test_now_ms() + limit_ms;
    int64_t last_ms = test_now_ms();
    bool held = done();
    while (!held && test_now_ms() < deadline_ms) {
        ev_run(loop, EVRUN_ONCE);
        const int64_t now_ms = test_now_ms();
        longest_ms = std::max(longest_ms, now_ms - last_ms);
        last_ms = now_ms;
        held = done();
    }
    ev_timer_stop(loop, &beat);
    return held;
}

void run_for(int time_ms) {
    (void)run_until([] { return false; }, time_ms);
}

int64_t longest_stall_ms() {
    return std::exchange(longest_ms, 0);
}

int64_t test_now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

int open_descriptors() {
    int count = 0;
    DIR* folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr) {
        ++count;
    }
    closedir(folder);
    return count;
}
