// Test view of the trace server's client bookkeeping: how many clients have
// a listener entry (an entry disappears once its client hung up and its
// writer thread ended).
#pragma once

#include <cstddef>

size_t TevdTrace_ListenerCountForTest(void);
