#ifndef VEMK_ROAM_SERVICE_CONSOLE_H
#define VEMK_ROAM_SERVICE_CONSOLE_H

#include "connection.h"
#include "http.h"
#include "roam_service.h"

#include <cstdint>
#include <map>
#include <string>

namespace vemk {

/// The page that shows and drives a roaming service, and the WebSocket that the page talks over.
///
/// The page's WebSocket has path "/console" and subprotocol "roam-console". The service sends what
/// there is to see several times a second while something changes, the page sends commands; both
/// are JSON objects. Only a page that came from here can drive the service: a Host that is no
/// loopback name is refused, and so is a WebSocket whose Origin is not that Host.
///
/// Threading: everything on the thread that serves the service.
/// Ownership: the service owns it, and outlives it.
class console {
public:
  explicit console(roam_service &shown_service) : service(shown_service) {}

  /// Answers the request if it is for the console. Returns false when it is for the service.
  bool accept(connection &visitor, const http_request_t &request);

  void process_message(connection &page, const message_t &message);
  void process_gone(const connection &page) { pages.erase(page.id()); }

  /// Sends the pages what is new, unless that was done a moment ago.
  void update();

private:
  struct page_t {
    connection *link = nullptr;
    uint64_t last_record_seen = 0;
  };

  void accept_page(connection &visitor, const http_request_t &request);
  void send_update(page_t &page);

  roam_service &service;
  std::map<unsigned int, page_t> pages;
  service_clock::time_point next_update;
};

} // namespace vemk

#endif
