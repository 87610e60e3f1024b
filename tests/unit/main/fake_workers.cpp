#include "unit/main/fake_workers.h"

#include <map>
#include <stdexcept>
#include <utility>

#include "ipc/event_ipc_worker.h"
#include "unit/main/fake_process.h"
#include "websock/event_websock_worker.h"

namespace {

using vemk::fake_process::record;

bool websock_throws = false;
bool ipc_throws = false;
vemk::fake_workers::websock_arguments_t last_websock{};
vemk::fake_workers::ipc_arguments_t last_ipc{};
std::map<const vemk::queue_bound *, vemk::fake_workers::bounds_t::value_type> bounds;

std::string name_of(vemk::abstract_worker *worker) {
  return dynamic_cast<vemk::ipc_worker *>(worker) != nullptr ? "ipc_worker" : "websock_worker";
}

} // namespace

extern "C" {

void __wrap__ZN4vemk15abstract_worker5startEv(vemk::abstract_worker *worker) {
  record("start " + name_of(worker));
}

void __wrap__ZN4vemk15abstract_worker4joinEv(vemk::abstract_worker *worker) {
  record("join " + name_of(worker));
}
}

namespace vemk {

websock_worker::websock_worker(message_queue_t *from_bus, message_queue_t *to_bus,
                               std::string server_host, std::string server_path,
                               std::int32_t server_port, const bool *keep_running_flag,
                               std::uint32_t first_delay, std::uint32_t largest_delay,
                               bool without_lws_binding, bool only_whole_messages)
    : abstract_worker(keep_running_flag, "websock-roaming") {
  record("websock_worker");
  last_websock = {from_bus,
                  to_bus,
                  std::move(server_host),
                  std::move(server_path),
                  server_port,
                  keep_running_flag,
                  *keep_running_flag,
                  first_delay,
                  largest_delay,
                  without_lws_binding,
                  only_whole_messages,
                  {}};
  if (websock_throws)
    throw std::runtime_error("websock_worker");
}

bool websock_worker::init() {
  return false;
}

bool websock_worker::run_once() {
  return false;
}

void websock_worker::deinit() {}

bool websock_worker::keep_running(const bool *) {
  return false;
}

void websock_worker::pass_delay(std::int32_t, const std::function<void()> &) {}

int websock_worker::lws_callback(lws *, lws_callback_reasons, void *, void *, std::size_t) {
  return 0;
}

int websock_worker::process_client_writeable(lws *, void *, void *) {
  return 0;
}

void websock_worker::request_writeable(lws *) {}

void websock_worker::dump(const buffer_info_t &) const {}

websock_worker::~websock_worker() {
  record("~websock_worker");
}

ipc_worker::ipc_worker(message_queue_t *from_bus, message_queue_t *to_bus, std::int32_t module,
                       const bool *keep_running_flag)
    : abstract_worker(keep_running_flag, "ipc") {
  record("ipc_worker");
  last_ipc = {from_bus, to_bus, module, keep_running_flag, *keep_running_flag, {}};
  if (ipc_throws)
    throw std::runtime_error("ipc_worker");
}

bool ipc_worker::init() {
  return false;
}

bool ipc_worker::run_once() {
  return false;
}

void ipc_worker::deinit() {}

bool ipc_worker::keep_running(const bool *) {
  return false;
}

ipc_worker::~ipc_worker() {
  record("~ipc_worker");
}

queue_bound::queue_bound(message_queue_t *bounded_queue, message_queue_t *consumed_queue)
    : bounded(bounded_queue), consumed(consumed_queue), stopped(false) {
  bounds[this] = {bounded, consumed};
}

wake_event::wake_event() : descriptor(-1) {}

wake_event::~wake_event() = default;

event_websock_worker::event_websock_worker(message_queue_t *from_bus, message_queue_t *to_bus,
                                           const char *server_host, const char *server_path,
                                           std::int32_t server_port, const bool *keep_running_flag,
                                           std::uint32_t first_delay, std::uint32_t largest_delay,
                                           bool only_whole_messages, queue_bound *from_bus_bound,
                                           queue_bound *to_bus_bound)
    : websock_worker(from_bus, to_bus, server_host, server_path, server_port, keep_running_flag,
                     first_delay, largest_delay, false, only_whole_messages) {
  record("event_websock_worker");
  last_websock.bounds = {bounds[from_bus_bound], bounds[to_bus_bound]};
}

bool event_websock_worker::init() {
  return false;
}

bool event_websock_worker::run_once() {
  return false;
}

int event_websock_worker::lws_callback(lws *, lws_callback_reasons, void *, void *, std::size_t) {
  return 0;
}

int event_websock_worker::process_client_writeable(lws *, void *, void *) {
  return 0;
}

void event_websock_worker::request_writeable(lws *) {}

void event_websock_worker::pass_delay(std::int32_t, const std::function<void()> &) {}

void event_websock_worker::dump(const buffer_info_t &) const {}

event_ipc_worker::event_ipc_worker(message_queue_t *from_bus, message_queue_t *to_bus,
                                   std::int32_t module, const bool *keep_running_flag,
                                   queue_bound *from_bus_bound, queue_bound *to_bus_bound)
    : ipc_worker(from_bus, to_bus, module, keep_running_flag) {
  record("event_ipc_worker");
  last_ipc.bounds = {bounds[from_bus_bound], bounds[to_bus_bound]};
}

bool event_ipc_worker::init() {
  return false;
}

bool event_ipc_worker::run_once() {
  return false;
}

void event_ipc_worker::pause_before_next_step() {}

event_ipc_worker::~event_ipc_worker() = default;

namespace fake_workers {

void reset() {
  websock_throws = false;
  ipc_throws = false;
  last_websock = {};
  last_ipc = {};
  bounds.clear();
}

void let_websock_construction_throw() {
  websock_throws = true;
}

void let_ipc_construction_throw() {
  ipc_throws = true;
}

websock_arguments_t websock_arguments() {
  return last_websock;
}

ipc_arguments_t ipc_arguments() {
  return last_ipc;
}

} // namespace fake_workers

} // namespace vemk
