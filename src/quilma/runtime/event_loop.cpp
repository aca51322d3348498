// The event-loop marker: a per-thread count of open scopes.
#include "quilma/runtime/event_loop.h"

namespace quilma::runtime {

namespace {
thread_local int open_scopes = 0;
}  // namespace

EventLoopScope::EventLoopScope() { ++open_scopes; }

EventLoopScope::~EventLoopScope() { --open_scopes; }

bool on_event_loop() noexcept { return open_scopes > 0; }

}  // namespace quilma::runtime
