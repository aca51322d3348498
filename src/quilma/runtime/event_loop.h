// Whether the calling thread is running the service's asynchronous event loop. The service
// wraps its loop's run in an EventLoopScope; blocking work (compaction) asks on_event_loop()
// and declines on that thread.
#pragma once

namespace quilma::runtime {

// Marks the calling thread as running the event loop for the object's lifetime. Scopes nest:
// the thread is on the loop until the outermost one ends. A scope must end on the thread that
// made it.
class EventLoopScope {
 public:
  EventLoopScope();
  ~EventLoopScope();
  EventLoopScope(const EventLoopScope&) = delete;
  EventLoopScope& operator=(const EventLoopScope&) = delete;
};

// Whether the calling thread is inside an EventLoopScope now. No side effects.
bool on_event_loop() noexcept;

}  // namespace quilma::runtime
