#ifndef VEMK_ROAM_SERVICE_ROAM_SERVICE_H
#define VEMK_ROAM_SERVICE_ROAM_SERVICE_H

#include "line_input.h"
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

/// The WebSocket server that daemons connect to.
///
/// Serves one path and the subprotocol "websock-roaming"; every other upgrade is refused. Each
/// received message, its fragments joined, goes to `on_message`. Notes about connections go to
/// standard error. It misbehaves as its switches and incidents say, towards daemons only. With the
/// console it serves that, too.
///
/// Threading: everything, callbacks included, runs on the thread that calls serve().
/// Errors: the constructor throws std::runtime_error, its text saying what to do, when the address
///   cannot be listened on. A daemon that fails, sends more than a message may hold or does not
///   read what it is sent is dropped.
class roam_service : private server {
public:
  using message_handler = std::function<void(std::string_view message)>;
  using daemon_map = std::map<unsigned int, daemon_t>;

  roam_service(const service_options_t &service_options, message_handler on_message);
  ~roam_service() override;

  /// The URL that daemons connect to, with the port that is listened on.
  std::string url() const;
  /// The address of the console's page.
  std::string console_url() const;

  /// Serves, and sends each line of `input` to every daemon, until `stop_wanted` returns true,
  /// which is asked several times a second; then takes leave of the daemons.
  void serve(const std::function<bool()> &stop_wanted, line_input &input);

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
  void process_request(connection &visitor, const http_request_t &request) override;
  void process_message(connection &one, const message_t &message) override;
  void process_sent(const connection &one, const outgoing_t &message) override;
  void process_gone(const connection &one) override;
  void accept_daemon(connection &visitor, const http_request_t &request);
  void process_daemon_message(daemon_t &from, const message_t &message);
  outgoing_ptr make_message(opcode_t kind, std::string_view payload) const;
  void send_to(const daemon_t &daemon, outgoing_ptr message) const;
  size_t for_each(std::optional<unsigned int> number,
                  const std::function<void(const daemon_t &)> &act) const;
  void run_due(service_clock::time_point now);
  void meet_incident(const connection &link);
  void take_leave();

  service_options_t options;
  const message_handler message_received;
  traffic_log passed;
  daemon_map daemons;
  std::optional<service_clock::time_point> back_at;
  std::unique_ptr<console> page;
};

} // namespace vemk

#endif
