#ifndef VEMK_ROAM_SERVICE_FAULT_SERVICE_H
#define VEMK_ROAM_SERVICE_FAULT_SERVICE_H

#include "server.h"
#include "service_options.h"
#include "traffic_log.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vemk {

class console;

/// What is known of a connected daemon. Times are milliseconds since the epoch.
struct daemon_t {
  connection *link = nullptr;
  int64_t since_ms = 0;
  std::optional<int64_t> last_ping_ms;
  unsigned int pings = 0;
  unsigned int pings_unanswered = 0; // since the last pong sent
  std::optional<service_clock::time_point> incident_due;
};

/// The WebSocket server that daemons connect to when it is to misbehave or to show itself.
///
/// It speaks the protocol itself, because a library answers pings and reads on its own account, and
/// both have to be stoppable.
///
/// Serves one path and the subprotocol "websock-roaming"; every other upgrade is refused. Each
/// received message, its fragments joined, goes to `on_message`. Notes about connections go to
/// standard error. It misbehaves as its switches and incidents say, towards daemons only. With the
/// console it serves that, too.
///
/// Threading: everything, callbacks included, runs on the thread that calls serve(), wake() aside.
/// Errors: the constructor throws std::runtime_error, its text saying what to do, when the address
///   cannot be listened on. A daemon that fails, sends more than a message may hold or does not
///   read what it is sent is dropped.
class fault_service {
public:
  using message_handler = std::function<void(std::string_view message)>;
  using wake_handler = std::function<void()>;
  using daemon_map = std::map<unsigned int, daemon_t>;

  fault_service(const service_options_t &service_options, message_handler on_message);
  ~fault_service();
  fault_service(const fault_service &) = delete;
  fault_service &operator=(const fault_service &) = delete;

  /// The URL that daemons connect to, with the port that is listened on.
  std::string url() const;
  bool has_console() const { return options.console; }
  /// The address of the console's page.
  std::string console_url() const;

  /// Serves until `stop_wanted` returns true, which is asked several times a second, then takes
  /// leave of the daemons. `on_wake` runs after each wake().
  void serve(const std::function<bool()> &stop_wanted, const wake_handler &on_wake);

  /// Makes serve() call `on_wake` soon. May be called from any thread.
  void wake() const { sockets.wake(); }

  /// Sends the text to every connected daemon.
  void broadcast(std::string_view text);

  // ---- what the console shows and drives; without a number, all daemons are meant ----

  const daemon_map &connected() const { return daemons; }
  const traffic_log &traffic() const { return passed; }
  const switches_t &switches() const { return options.switches; }
  std::optional<std::chrono::milliseconds> away_for() const;

  /// Each returns how many daemons it was done to.
  size_t send(std::optional<unsigned int> number, std::string_view text);
  size_t close(std::optional<unsigned int> number, int code);
  size_t reset(std::optional<unsigned int> number);

  void set_switches(const switches_t &wanted);
  void go_away(std::chrono::seconds time);
  void come_back();

private:
  void process_request(connection &visitor, const http_request_t &request);
  void process_message(connection &one, const message_t &message);
  void process_sent(const connection &one, const outgoing_t &message);
  void process_gone(const connection &one);
  void refuse(connection &visitor, const std::string &status, const std::string &reason) const;
  void accept_daemon(connection &visitor, const http_request_t &request);
  void process_daemon_message(daemon_t &from, const message_t &message);
  void send_to(daemon_t &daemon, const std::shared_ptr<const outgoing_t> &message);
  void for_each(std::optional<unsigned int> number, const std::function<void(daemon_t &)> &act);
  void run_due(service_clock::time_point now);
  void meet_incident(const connection &link);
  std::chrono::milliseconds wait_until_due() const;
  void take_leave();

  service_options_t options;
  const message_handler message_received;
  traffic_log passed;
  daemon_map daemons;
  std::optional<service_clock::time_point> back_at;
  server sockets;
  std::unique_ptr<console> page;
};

/// The wall clock, in milliseconds since the epoch.
int64_t wall_clock_ms();

} // namespace vemk

#endif
