// A real broker on a Unix socket in a folder of its own, which the test starts, kills, freezes and restarts, and a loop
// that runs until something holds.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

struct ev_loop;

class Broker {
  public:
    Broker();   // started, and in the environment's VESK_BUS
    ~Broker();  // killed, folder removed
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    void configure(const std::string& lines);        // added to its configuration; started again with them
    void start();                                    // returns when it takes connections
    void kill();                                     // SIGKILL, reaped
    void freeze();                                   // SIGSTOP, returns when it stands
    void go_on();                                    // SIGCONT
    void forget();                                   // killed, and started again without what it had kept
    bool has_saved(const std::string& bytes) const;  // they are in the file from which its successor starts
    std::string address() const;
    std::string folder() const;
    int port() const;  // loopback TCP as well

  private:
    std::string folder_;
    int port_ = 0;
    int pid_ = -1;
};

// Where this machine keeps a plugin of the broker.
std::string broker_plugin(const std::string& name);

// Runs the default loop until `done` holds; false after limit_ms.
bool run_until(const std::function<bool()>& done, int limit_ms = 10'000);
// Runs the default loop for that long: only to see that nothing happens.
void run_for(int time_ms);
// The longest that the loop was kept from its 5 ms beat during run_until and run_for since the last call, in ms.
int64_t longest_stall_ms();
// Longer than that, something has blocked: on a frozen broker it would be for ever. A workbench with much else to do
// takes the processor away for some 100 ms at times; undisturbed, 50 ms would do.
constexpr int64_t BLOCKED_MS = 250;

int64_t test_now_ms();
int open_descriptors();
