// The host model and the producers on the daemon's sockets live in the one harness.
#pragma once

#include "Harness.h"
