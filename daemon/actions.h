// The remote actions: the table that the application framework answers requests by. Handlers run on the loop thread.
#pragma once

#include "vesk_util.h"

// Ends with a row of zeros.
extern const remote_action action_table[];
