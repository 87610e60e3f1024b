/// One message's way through both workers, with memory that runs out at a chosen request.
#ifndef VEMK_TESTS_UNIT_MEMORY_SHORTAGE_MEMORY_SHORTAGE_FIXTURE_H
#define VEMK_TESTS_UNIT_MEMORY_SHORTAGE_MEMORY_SHORTAGE_FIXTURE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/fake_memory.h"
#include "ipc/ipc_worker.h"
#include "support/logging_test.h"
#include "support/status_texts.h"
#include "websock/websock_worker.h"

namespace vemk {

/// What came of one run of a way.
struct outcome_t {
  /// Of kind "" in the run in which no request was refused.
  fake_memory::request_t refused;
  /// The worker out of whose step std::bad_alloc came, which ends the process; else empty.
  std::string ended;
  std::vector<std::string> at_server;
  std::vector<std::string> on_bus;
  /// What the error category says, each with its module in front.
  std::vector<std::string> errors;
};

class MemoryShortageFixture : public LoggingTest {
protected:
  MemoryShortageFixture() : LoggingTest(log_category_error) {}
  ~MemoryShortageFixture() override;

  using way_t = std::function<void()>;

  /// Runs the way anew on fresh workers with request 1, 2, 3 ... refused, until it passes without
  /// one. `prepare` stands in front of every run and gets what it asks for. After each run that
  /// did not end the process, a message each way has to pass unchanged.
  std::vector<outcome_t> run_all(const way_t &prepare, const way_t &way);

  /// Two connected workers. `earlier` messages each way have passed, so that a queue's next one
  /// may be the first of a new block.
  void connect(int earlier = 0);
  void make_workers();

  // The steps of a way. After the one that ended the process no further one is run.

  void bus_step();
  /// The library's event happens inside one step of the WebSocket worker.
  void websock_step(const way_t &event);
  void establishment_step();
  void writeable_step();
  /// One message from the server in these pieces, a step for each.
  void receive_steps(const std::vector<std::string> &pieces);
  /// init() of the WebSocket worker; the base does not catch what it throws.
  void websock_init();

private:
  void step(const std::string &worker, const way_t &action);
  void collect();
  void expect_messages_pass(const outcome_t &after);
  void clear_far_ends();

  bool run_flag = true;
  std::unique_ptr<message_queue_t> bus_to_ws;
  std::unique_ptr<message_queue_t> ws_to_bus;
  std::unique_ptr<ipc_worker> ipc;
  std::unique_ptr<websock_worker> websock;
  outcome_t current;
};

} // namespace vemk

#endif
