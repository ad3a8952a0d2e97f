#pragma once

// Reads that may fault, and accesses that must not happen.

#include <cstdint>

namespace mini {

// Tells in words what is wrong with an access to the address, or null when it knows nothing of the address. Called on a
// signal, so it must not take locks.
using ExplainFault = const char* (*)(const void* address);

// Catches SIGSEGV and SIGBUS from now on; explain_faults then says who knows of addresses.
void catch_faults();
void explain_faults(ExplainFault explain);

// The value at the address, or `otherwise` when it can't be read.
int32_t fetch_or(int32_t* address, int32_t otherwise);

}  // namespace mini
