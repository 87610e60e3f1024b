#include "console.h"

#include "console_files.h"
#include "console_json.h"

namespace vemk {
namespace {

constexpr const char *request_kind = "console request";
constexpr const char *subprotocol = "roam-console";
constexpr const char *socket_path = "/console";
constexpr std::chrono::milliseconds update_interval{250};
constexpr size_t most_pages = 16;

/// One of the files that the console's page is made of. They are part of the program.
struct file_t {
  std::string_view target; // of the request
  const char *content_type;
  std::string_view bytes;
};

constexpr file_t files[] = {
    {"/", "text/html; charset=utf-8", console_index_html},
    {"/style.css", "text/css; charset=utf-8", console_style_css},
    {"/script.js", "text/javascript; charset=utf-8", console_script_js},
    {"/icon.svg", "image/svg+xml", console_icon_svg},
};

const file_t *find_file(std::string_view target) {
  for (const auto &file : files)
    if (file.target == target)
      return &file;
  return nullptr;
}

// What the page may load and talk to; nothing from anywhere else.
std::string page_headers(const std::string &host) {
  return "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
         "img-src 'self'; connect-src 'self' ws://" +
         host +
         "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n"
         "X-Content-Type-Options: nosniff\r\nReferrer-Policy: no-referrer\r\n"
         "Cross-Origin-Resource-Policy: same-origin\r\nCache-Control: no-store\r\n";
}

void answer_with_file(connection &visitor, const http_request_t &request, const file_t &file) {
  if (request.method != "GET" && request.method != "HEAD") {
    visitor.answer(http_answer("405 Method Not Allowed", "text/plain", "only GET is served\n",
                               "Allow: GET, HEAD\r\n"));
    return;
  }
  std::string answer =
      http_answer("200 OK", file.content_type, file.bytes, page_headers(request.header("host")));
  if (request.method == "HEAD")
    answer.resize(answer.size() - file.bytes.size());
  visitor.answer(std::move(answer));
}

} // namespace

bool console::accept(connection &visitor, const http_request_t &request) {
  const bool is_socket = request.target == socket_path &&
                         list_contains(request.header("sec-websocket-protocol"), subprotocol);
  const file_t *file = is_upgrade(request) ? nullptr : find_file(request.target);
  if (!is_socket && !file)
    return false;
  // A name of elsewhere that was made to lead here is still in the Host header.
  if (!is_loopback_host(request.header("host")))
    refuse(visitor, request_kind, "403 Forbidden",
           "the console is for this machine; open it by its address");
  else if (file)
    answer_with_file(visitor, request, *file);
  else
    accept_page(visitor, request);
  return true;
}

void console::accept_page(connection &visitor, const http_request_t &request) {
  if (!is_upgrade(request)) {
    refuse(visitor, request_kind, "426 Upgrade Required",
           "this path is for the console's WebSocket");
  } else if (request.header("origin") != "http://" + request.header("host")) {
    refuse(visitor, request_kind, "403 Forbidden",
           "only the console's own page may use its WebSocket");
  } else if (pages.size() >= most_pages) {
    refuse(visitor, request_kind, "503 Service Unavailable", "too many pages are open; close some");
  } else {
    visitor.accept_upgrade(upgrade_answer(request, subprotocol));
    auto &page = pages[visitor.id()];
    page.link = &visitor;
    send_update(page);
  }
}

void console::process_message(connection &page, const message_t &message) {
  if (message.kind == opcode_t::ping)
    page.send(make_outgoing(opcode_t::pong, message.payload));
  if (message.kind != opcode_t::text)
    return;
  page.send(make_outgoing(opcode_t::text, carry_out_command(service, message.payload)));
  next_update = {};
}

void console::update() {
  const auto now = service_clock::now();
  if (pages.empty() || now < next_update)
    return;
  next_update = now + update_interval;
  for (auto &[number, page] : pages)
    send_update(page);
}

void console::send_update(page_t &page) {
  // A page that does not read loses records, not memory.
  if (page.link->has_output())
    return;
  const uint64_t seen = page.last_record_seen;
  page.last_record_seen = service.traffic().last_number();
  page.link->send(make_outgoing(opcode_t::text, describe(service, seen)));
}

} // namespace vemk
