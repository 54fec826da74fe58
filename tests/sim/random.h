// The only source of chance: one seed decides everything.
#pragma once

#include <cstdint>

namespace sim {

class random {
  public:
    explicit random(uint64_t seed) : state_(seed) {}

    uint64_t next() {
        state_ += 0x9e3779b97f4a7c15;
        uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    // 0 to n - 1.
    uint32_t below(uint32_t n) { return static_cast<uint32_t>((next() >> 32) % n); }
    bool percent(uint32_t p) { return below(100) < p; }

  private:
    uint64_t state_;
};

}  // namespace sim
