#include "roam_service.h"

#include "console.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

namespace vemk {
namespace {

constexpr const char *daemon_subprotocol = "websock-roaming";
constexpr std::chrono::seconds reopen_interval{1};
/// How long an ending service waits for its daemons to take the close.
constexpr std::chrono::seconds leave_patience{1};

} // namespace

roam_service::roam_service(const service_options_t &service_options, message_handler on_message)
    : server(service_options.bind_address, service_options.port), options(service_options),
      message_received(std::move(on_message)),
      page(options.console ? std::make_unique<console>(*this) : nullptr) {}

roam_service::~roam_service() = default;

std::string roam_service::url() const {
  return "ws://" + host_and_port() + options.path;
}

std::string roam_service::console_url() const {
  return "http://" + host_and_port() + "/";
}

void roam_service::serve(const std::function<bool()> &stop_wanted, line_input &input) {
  while (!stop_wanted()) {
    run_due(service_clock::now());
    if (serve_once(input.descriptor()))
      for (const std::string &line : input.read_some())
        if (send(std::nullopt, line) == 0)
          std::fprintf(stderr, "roam-service: no daemon is connected; the line went nowhere\n");
    if (page)
      page->update();
  }
  take_leave();
}

std::optional<std::chrono::milliseconds> roam_service::away_for() const {
  if (!back_at)
    return std::nullopt;
  return std::chrono::ceil<std::chrono::milliseconds>(*back_at - service_clock::now());
}

size_t roam_service::send(std::optional<unsigned int> number, std::string_view text) {
  const auto message = make_message(opcode_t::text, text);
  return for_each(number, [&](const daemon_t &daemon) { send_to(daemon, message); });
}

size_t roam_service::close(std::optional<unsigned int> number, int code) {
  return for_each(number, [code](const daemon_t &daemon) {
    std::fprintf(stderr, "roam-service: closing the connection from %s with code %d\n",
                 daemon.link->peer().c_str(), code);
    daemon.link->close_with(code);
  });
}

size_t roam_service::reset(std::optional<unsigned int> number) {
  return for_each(number, [](const daemon_t &daemon) {
    std::fprintf(stderr, "roam-service: resetting the connection from %s\n",
                 daemon.link->peer().c_str());
    daemon.link->reset();
  });
}

void roam_service::set_switches(const switches_t &wanted) {
  options.switches = wanted;
  for (auto &[number, daemon] : daemons)
    daemon.link->let_read(!wanted.stop_reading);
}

void roam_service::go_away(std::chrono::seconds time) {
  std::fprintf(stderr, "roam-service: going away for %lld s\n",
               static_cast<long long>(time.count()));
  back_at = service_clock::now() + time;
  close_door();
  close(std::nullopt, close_going_away);
}

void roam_service::come_back() {
  if (!back_at)
    return;
  try {
    open_door();
    back_at.reset();
    std::fprintf(stderr, "roam-service: back on %s\n", url().c_str());
  } catch (const std::runtime_error &error) {
    std::fprintf(stderr, "roam-service: %s; trying again\n", error.what());
    back_at = service_clock::now() + reopen_interval;
  }
}

void roam_service::process_request(connection &visitor, const http_request_t &request) {
  if (page && page->accept(visitor, request))
    return;
  if (is_from_elsewhere(request))
    refuse(visitor, "connection", "403 Forbidden",
           "its Origin is of another host than the service");
  else if (request.target.substr(0, request.target.find('?')) != options.path)
    refuse(visitor, "connection", "404 Not Found", "only path " + options.path + " is served");
  else if (!is_upgrade(request))
    refuse(visitor, "connection", "426 Upgrade Required", "only WebSocket connections are served");
  else if (!list_contains(request.header("sec-websocket-protocol"), daemon_subprotocol))
    refuse(visitor, "connection", "400 Bad Request",
           std::string("only subprotocol ") + daemon_subprotocol + " is served");
  else
    accept_daemon(visitor, request);
}

void roam_service::accept_daemon(connection &visitor, const http_request_t &request) {
  visitor.accept_upgrade(upgrade_answer(request, daemon_subprotocol));
  visitor.let_read(!options.switches.stop_reading);
  daemon_t &daemon = daemons[visitor.id()];
  daemon.link = &visitor;
  daemon.since_ms = wall_clock_ms();
  daemon.incident_due = service_clock::now() + std::chrono::seconds(options.after_s);
  std::fprintf(stderr, "roam-service: daemon connected from %s\n", visitor.peer().c_str());
}

void roam_service::process_message(connection &one, const message_t &message) {
  const auto found = daemons.find(one.id());
  if (found != daemons.end())
    process_daemon_message(found->second, message);
  else
    page->process_message(one, message);
}

void roam_service::process_daemon_message(daemon_t &from, const message_t &message) {
  passed.add(from.link->id(), direction_t::received,
             summary_of(message.kind, message.payload, message.frame_count));
  if (message.kind == opcode_t::ping) {
    from.last_ping_ms = wall_clock_ms();
    ++from.pings;
    ++from.pings_unanswered;
    if (!options.switches.no_pongs)
      send_to(from, make_message(opcode_t::pong, message.payload));
  } else if (is_data(message.kind)) {
    message_received(message.payload);
    if (options.echo)
      send_to(from, make_message(message.kind, message.payload));
  }
}

void roam_service::process_sent(const connection &one, const outgoing_t &message) {
  const auto found = daemons.find(one.id());
  if (found == daemons.end())
    return;
  if (message.summary.kind == opcode_t::pong)
    found->second.pings_unanswered = 0;
  passed.add(one.id(), direction_t::sent, message.summary);
}

void roam_service::process_gone(const connection &one) {
  if (page)
    page->process_gone(one);
  if (daemons.erase(one.id()) == 0)
    return;
  if (one.failure() != 0)
    std::fprintf(stderr, "roam-service: the daemon %s; it was dropped\n",
                 one.failure() == close_too_long ? "sent a message that is too long"
                                                 : "broke the WebSocket protocol");
  std::fprintf(stderr, "roam-service: daemon gone\n");
}

outgoing_ptr roam_service::make_message(opcode_t kind, std::string_view payload) const {
  return make_outgoing(kind, payload,
                       is_data(kind) ? static_cast<size_t>(options.switches.fragments) : 1);
}

void roam_service::send_to(const daemon_t &daemon, outgoing_ptr message) const {
  if (!daemon.link->send(std::move(message), options.switches.delay()))
    std::fprintf(stderr,
                 "roam-service: the daemon at %s does not read what it is sent; dropping it\n",
                 daemon.link->peer().c_str());
}

size_t roam_service::for_each(std::optional<unsigned int> number,
                              const std::function<void(const daemon_t &)> &act) const {
  size_t count = 0;
  for (const auto &[own_number, daemon] : daemons)
    if (daemon.link->open() && (!number || *number == own_number)) {
      act(daemon);
      ++count;
    }
  return count;
}

void roam_service::run_due(service_clock::time_point now) {
  if (back_at && now >= *back_at)
    come_back();
  for (auto &[number, daemon] : daemons)
    if (daemon.incident_due && now >= *daemon.incident_due) {
      daemon.incident_due.reset();
      meet_incident(*daemon.link);
    }
}

void roam_service::meet_incident(const connection &link) {
  if (options.close_code != 0)
    close(link.id(), options.close_code);
  else if (options.reset)
    reset(link.id());
  else if (options.away_s != 0 && link.open())
    go_away(std::chrono::seconds(options.away_s));
}

void roam_service::take_leave() {
  for (const auto &one : connections())
    if (one->open())
      one->close_with(close_going_away);
    else
      one->lose();
  const auto deadline = service_clock::now() + leave_patience;
  while (!connections().empty() && service_clock::now() < deadline)
    serve_once(-1);
}

} // namespace vemk
