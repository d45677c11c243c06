// Lets the n-th of a kind of call into the system fail, as the product makes it.
#pragma once

namespace failing {

/// The n-th `call` (the names stand in failing_calls.cpp) from now on fails with EIO, and with `forGood`
/// every later one.
void arm(const char* call, long n = 1, bool forGood = false);
/// No more from now on; whether there has been an n-th call.
bool disarm();

/// Whether the calling thread's calls are the product's, as those of a thread that the product starts are.
extern thread_local bool t_product;

} // namespace failing
