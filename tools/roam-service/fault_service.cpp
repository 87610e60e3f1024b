#include "fault_service.h"

#include "admission.h"
#include "console.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace vemk {
namespace {

constexpr std::chrono::milliseconds longest_wait{200};
constexpr std::chrono::seconds reopen_interval{1};

bool is_data(opcode_t kind) {
  return kind == opcode_t::text || kind == opcode_t::binary;
}

size_t frames_of(opcode_t kind, const switches_t &switches) {
  return is_data(kind) ? static_cast<size_t>(switches.fragments) : 1;
}

} // namespace

int64_t wall_clock_ms() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count();
}

fault_service::fault_service(const service_options_t &service_options, message_handler on_message)
    : options(service_options), message_received(std::move(on_message)),
      sockets(options.bind_address, options.port,
              {[this](connection &one, const http_request_t &request) {
                 process_request(one, request);
               },
               [this](connection &one, const message_t &message) { process_message(one, message); },
               [this](connection &one, const outgoing_t &message) { process_sent(one, message); },
               [this](connection &one) { process_gone(one); }}) {
  if (options.console)
    page = std::make_unique<console>(*this);
}

fault_service::~fault_service() = default;

std::string fault_service::url() const {
  return "ws://" + host_and_port(options.bind_address, sockets.port()) + options.path;
}

std::string fault_service::console_url() const {
  return "http://" + host_and_port(options.bind_address, sockets.port()) + "/";
}

void fault_service::serve(const std::function<bool()> &stop_wanted, const wake_handler &on_wake) {
  while (!stop_wanted()) {
    run_due(service_clock::now());
    if (sockets.serve_once(wait_until_due()))
      on_wake();
    if (page)
      page->update();
  }
  take_leave();
}

void fault_service::broadcast(std::string_view text) {
  if (send(std::nullopt, text) == 0)
    std::fprintf(stderr, "roam-service: no daemon is connected; the line went nowhere\n");
}

std::optional<std::chrono::milliseconds> fault_service::away_for() const {
  if (!back_at)
    return std::nullopt;
  return std::chrono::ceil<std::chrono::milliseconds>(*back_at - service_clock::now());
}

size_t fault_service::send(std::optional<unsigned int> number, std::string_view text) {
  const auto message =
      make_outgoing(opcode_t::text, text, frames_of(opcode_t::text, options.switches));
  size_t count = 0;
  for_each(number, [&](daemon_t &daemon) {
    send_to(daemon, message);
    ++count;
  });
  return count;
}

size_t fault_service::close(std::optional<unsigned int> number, int code) {
  size_t count = 0;
  for_each(number, [&](daemon_t &daemon) {
    std::fprintf(stderr, "roam-service: closing the connection from %s with code %d\n",
                 daemon.link->peer().c_str(), code);
    daemon.link->close_with(code);
    ++count;
  });
  return count;
}

size_t fault_service::reset(std::optional<unsigned int> number) {
  size_t count = 0;
  for_each(number, [&](daemon_t &daemon) {
    std::fprintf(stderr, "roam-service: resetting the connection from %s\n",
                 daemon.link->peer().c_str());
    daemon.link->reset();
    ++count;
  });
  return count;
}

void fault_service::set_switches(const switches_t &wanted) {
  options.switches = wanted;
  for (auto &[number, daemon] : daemons)
    daemon.link->let_read(!wanted.stop_reading);
}

void fault_service::go_away(std::chrono::seconds time) {
  std::fprintf(stderr, "roam-service: going away for %lld s\n",
               static_cast<long long>(time.count()));
  back_at = service_clock::now() + time;
  sockets.door_of().close();
  close(std::nullopt, close_going_away);
}

void fault_service::come_back() {
  if (!back_at)
    return;
  try {
    sockets.door_of().open();
    back_at.reset();
    std::fprintf(stderr, "roam-service: back on %s\n", url().c_str());
  } catch (const std::runtime_error &error) {
    std::fprintf(stderr, "roam-service: %s; trying again\n", error.what());
    back_at = service_clock::now() + reopen_interval;
  }
}

void fault_service::process_request(connection &visitor, const http_request_t &request) {
  if (page && page->accept(visitor, request))
    return;
  if (is_from_elsewhere(request.find("origin"), request.header("host")))
    refuse(visitor, elsewhere_status, elsewhere_reason);
  else if (request.target != options.path)
    refuse(visitor, "404 Not Found", "only path " + options.path + " is served");
  else if (!is_upgrade(request))
    refuse(visitor, "426 Upgrade Required", "only WebSocket connections are served");
  else if (!list_contains(request.header("sec-websocket-protocol"), daemon_subprotocol))
    refuse(visitor, "400 Bad Request",
           std::string("only subprotocol ") + daemon_subprotocol + " is served");
  else
    accept_daemon(visitor, request);
}

void fault_service::refuse(connection &visitor, const std::string &status,
                           const std::string &reason) const {
  std::fprintf(stderr, "roam-service: refused a connection: %s\n", reason.c_str());
  visitor.answer(http_answer(status, "text/plain", reason + "\n"));
}

void fault_service::accept_daemon(connection &visitor, const http_request_t &request) {
  visitor.accept_upgrade(upgrade_answer(request, daemon_subprotocol));
  visitor.let_read(!options.switches.stop_reading);
  daemon_t daemon;
  daemon.link = &visitor;
  daemon.since_ms = wall_clock_ms();
  if (options.incident != incident_t::none)
    daemon.incident_due = service_clock::now() + std::chrono::seconds(options.after_s);
  daemons.emplace(visitor.id(), daemon);
  std::fprintf(stderr, "roam-service: daemon connected from %s\n", visitor.peer().c_str());
}

void fault_service::process_message(connection &one, const message_t &message) {
  const auto found = daemons.find(one.id());
  if (found != daemons.end())
    process_daemon_message(found->second, message);
  else if (page)
    page->process_message(one, message);
}

void fault_service::process_daemon_message(daemon_t &from, const message_t &message) {
  passed.add({0, wall_clock_ms(), from.link->id(), direction_t::received, message.kind,
              message.payload.size(), message.frame_count,
              message.payload.substr(0, recorded_bytes)});
  if (message.kind == opcode_t::ping) {
    from.last_ping_ms = wall_clock_ms();
    ++from.pings;
    ++from.pings_unanswered;
    if (!options.switches.no_pongs)
      send_to(from, make_outgoing(opcode_t::pong, message.payload));
  } else if (is_data(message.kind)) {
    message_received(message.payload);
    if (options.echo)
      send_to(from, make_outgoing(message.kind, message.payload,
                                  frames_of(message.kind, options.switches)));
  }
}

void fault_service::process_sent(const connection &one, const outgoing_t &message) {
  const auto found = daemons.find(one.id());
  if (found == daemons.end())
    return;
  if (message.kind == opcode_t::pong)
    found->second.pings_unanswered = 0;
  passed.add({0, wall_clock_ms(), one.id(), direction_t::sent, message.kind, message.payload_bytes,
              message.frame_count, message.beginning});
}

void fault_service::process_gone(const connection &one) {
  if (daemons.erase(one.id()) == 0) {
    if (page)
      page->process_gone(one);
    return;
  }
  if (one.failure() != 0)
    std::fprintf(stderr, "roam-service: the daemon %s; it was dropped\n",
                 one.failure() == close_too_long ? "sent a message that is too long"
                                                 : "broke the WebSocket protocol");
  std::fprintf(stderr, "roam-service: daemon gone\n");
}

void fault_service::send_to(daemon_t &daemon, const std::shared_ptr<const outgoing_t> &message) {
  if (!daemon.link->send(message, options.switches.delay()))
    std::fprintf(stderr,
                 "roam-service: the daemon at %s does not read what it is sent; dropping it\n",
                 daemon.link->peer().c_str());
}

void fault_service::for_each(std::optional<unsigned int> number,
                             const std::function<void(daemon_t &)> &act) {
  for (auto &[own_number, daemon] : daemons)
    if (daemon.link->open() && (!number || *number == own_number))
      act(daemon);
}

void fault_service::run_due(service_clock::time_point now) {
  if (back_at && now >= *back_at)
    come_back();
  for (auto &[number, daemon] : daemons)
    if (daemon.incident_due && now >= *daemon.incident_due) {
      daemon.incident_due.reset();
      meet_incident(*daemon.link);
    }
}

void fault_service::meet_incident(const connection &link) {
  switch (options.incident) {
  case incident_t::none:
    break;
  case incident_t::close:
    close(link.id(), options.close_code);
    break;
  case incident_t::reset:
    reset(link.id());
    break;
  case incident_t::away:
    if (link.open())
      go_away(std::chrono::seconds(options.away_s));
    break;
  }
}

std::chrono::milliseconds fault_service::wait_until_due() const {
  auto due = back_at;
  for (const auto &[number, daemon] : daemons)
    if (daemon.incident_due && (!due || *daemon.incident_due < *due))
      due = daemon.incident_due;
  if (!due)
    return longest_wait;
  return std::clamp(std::chrono::ceil<std::chrono::milliseconds>(*due - service_clock::now()),
                    std::chrono::milliseconds(0), longest_wait);
}

void fault_service::take_leave() {
  for (const auto &one : sockets.connections())
    if (one->open())
      one->close_with(close_going_away);
    else
      one->lose();
  const auto deadline = service_clock::now() + leave_patience;
  while (!sockets.connections().empty() && service_clock::now() < deadline)
    sockets.serve_once(longest_wait);
}

} // namespace vemk
