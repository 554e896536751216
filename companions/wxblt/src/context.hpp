#pragma once

namespace wxblt::detail {

// The process-wide ZeroMQ context, created on first use. It is never
// terminated: terminating waits for every socket to close, which would let a
// socket left open anywhere in the process hang its exit.
void* context();

// Throws ZmqTermination for ETERM and wxblt::Exception for any other errno.
[[noreturn]] void throwError(int errorNumber);

// Throws for the current errno.
[[noreturn]] void throwLastError();

// Throws ZmqTermination once shutdown() has been called.
void throwIfShutDown();

}  // namespace wxblt::detail
