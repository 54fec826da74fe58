#include "runner.h"

namespace sim {

bool fail_every_call(int, int, double) {
    return false;
}

}  // namespace sim
