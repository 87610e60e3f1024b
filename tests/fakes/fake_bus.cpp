#include "fakes/fake_bus.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "module_bus.h"

namespace {

constexpr std::size_t length_offset = 4;
constexpr std::size_t payload_offset = 13;

struct message_t {
  std::string payload;
  char filling;
};

std::mutex state_lock;
std::deque<message_t> inbox;
std::vector<char *> records;
std::function<void()> send_hook;
int loop_flag = 0;
int call_result = 0;
bool flag_changes_ignored = false;
bool peer_start_fails = false;

using guard = vemk::fake_call_guard<std::mutex>;

/// Returns an odd address inside a block of its own.
char *make_record(const message_t &message) {
  const auto length = static_cast<std::uint32_t>(message.payload.size());
  char *const block = static_cast<char *>(malloc(1 + payload_offset + length));
  char *const start = block + 1;
  memset(start, message.filling, payload_offset);
  memcpy(start + length_offset, &length, sizeof length);
  memcpy(start + payload_offset, message.payload.data(), length);
  return start;
}

} // namespace

extern "C" {

void __real_free(void *block);

void __wrap_free(void *block) {
  // A stand-in's own memory is never a record, and it may be released with the state locked.
  if (!vemk::own_memory::is_asked_for()) {
    const guard locked(state_lock);
    const auto found = std::find(records.begin(), records.end(), block);
    if (found != records.end()) {
      block = *found - 1;
      records.erase(found);
    }
  }
  __real_free(block);
}

void InitTrace(const char *module_name) {
  const guard locked(state_lock);
  vemk::fake_bus::calls.add(std::string("InitTrace ") + module_name);
}

void SetTraceOpt(int target, int level, int flags) {
  const guard locked(state_lock);
  vemk::fake_bus::calls.add("SetTraceOpt " + std::to_string(target) + " " + std::to_string(level) +
                            " " + std::to_string(flags));
}

int InitLibParams(int module_id, const signed char *list, int count) {
  const guard locked(state_lock);
  std::string elements;
  for (int i = 0; i < count; ++i)
    elements += (i == 0 ? "" : ", ") + std::to_string(list[i]);
  vemk::fake_bus::calls.add("InitLibParams " + std::to_string(module_id) + " {" + elements + "} " +
                            std::to_string(count));
  return call_result;
}

void FreeLibParams() {
  const guard locked(state_lock);
  vemk::fake_bus::calls.add("FreeLibParams");
}

int ModulePeerStart() {
  const guard locked(state_lock);
  vemk::fake_bus::calls.add("ModulePeerStart");
  if (!peer_start_fails)
    loop_flag = 1;
  return call_result;
}

void ModulePeerStop() {
  const guard locked(state_lock);
  vemk::fake_bus::calls.add("ModulePeerStop");
}

int GetModuleLoop() {
  const guard locked(state_lock);
  vemk::fake_bus::calls.add("GetModuleLoop");
  return loop_flag;
}

void SetModuleLoop(int value) {
  const guard locked(state_lock);
  vemk::fake_bus::calls.add("SetModuleLoop " + std::to_string(value));
  if (!flag_changes_ignored)
    loop_flag = value;
}

void *GetMsgFromQueueNoWait() {
  const guard locked(state_lock);
  vemk::fake_bus::calls.add("GetMsgFromQueueNoWait");
  if (inbox.empty())
    return nullptr;
  char *const start = make_record(inbox.front());
  inbox.pop_front();
  records.push_back(start);
  return start;
}

int MsgSend(const void *data, int destination, uint32_t length) {
  std::function<void()> hook;
  {
    const guard locked(state_lock);
    const std::string payload(static_cast<const char *>(data), length);
    vemk::fake_bus::calls.add("MsgSend " + payload + " " + std::to_string(destination) + " " +
                              std::to_string(length));
    vemk::fake_bus::sent.add(payload);
    hook = send_hook;
  }
  if (hook)
    hook();
  return call_result;
}
}

namespace vemk::fake_bus {

record_of<std::string> calls;
record_of<std::string> sent;

void reset() {
  const guard locked(state_lock);
  calls.clear();
  sent.clear();
  inbox.clear();
  send_hook = nullptr;
  loop_flag = 0;
  call_result = 0;
  flag_changes_ignored = false;
  peer_start_fails = false;
}

void add_message(const std::string &payload, char filling) {
  const guard locked(state_lock);
  inbox.push_back({payload, filling});
}

std::size_t records_in_use() {
  const guard locked(state_lock);
  return records.size();
}

void set_flag(int value) {
  const guard locked(state_lock);
  loop_flag = value;
}

void ignore_flag_changes() {
  const guard locked(state_lock);
  flag_changes_ignored = true;
}

void fail_peer_start() {
  const guard locked(state_lock);
  peer_start_fails = true;
}

void set_results(int value) {
  const guard locked(state_lock);
  call_result = value;
}

void on_send(std::function<void()> hook) {
  const guard locked(state_lock);
  send_hook = std::move(hook);
}

} // namespace vemk::fake_bus
