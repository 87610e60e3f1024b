#include "harness/message_end.h"

#include <algorithm>
#include <libwebsockets.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>

namespace vemk {

namespace {

/// The library's loop runs in the caller's thread, as in a program that has only this one.
class library_end : public message_end {
public:
  library_end(std::uint16_t port, bool holds_packets_back) : corks(holds_packets_back) {
    lws_set_log_level(0, nullptr);
    protocols[0].name = "websock-roaming";
    protocols[0].callback = callback;
    protocols[0].user = this;
    // As much at once as the socket takes.
    protocols[0].tx_packet_size = 1 << 30;
    lws_context_creation_info creation{};
    creation.port = CONTEXT_PORT_NO_LISTEN;
    creation.protocols = protocols;
    creation.user = this;
    context = lws_create_context(&creation);
    lws_client_connect_info connect{};
    connect.context = context;
    connect.address = connect.host = connect.origin = "127.0.0.1";
    connect.port = port;
    connect.path = "/roam";
    connect.protocol = protocols[0].name;
    connect.ietf_version_or_minus_one = -1;
    wsi = lws_client_connect_via_info(&connect);
  }

  ~library_end() override { lws_context_destroy(context); }

  void wait_until_connected() override {
    while (!established)
      step();
  }

  void send(std::string_view payload, long count) override {
    text = payload;
    frame.resize(LWS_PRE + payload.size());
    to_send = count;
    lws_callback_on_writable(wsi);
    while (to_send > 0 || lws_partial_buffered(wsi) != 0)
      step();
  }

  void receive(std::size_t size, long count) override {
    wanted_size = size;
    for (received = 0; received < count;)
      step();
  }

private:
  void step() {
    if (ended || lws_service(context, 0) < 0)
      give_up("the library ended the connection");
  }

  static int callback(lws *wsi, lws_callback_reasons reason, void *, void *, std::size_t length) {
    auto *self = static_cast<library_end *>(lws_context_user(lws_get_context(wsi)));
    switch (reason) {
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
      self->established = true;
      break;
    case LWS_CALLBACK_CLIENT_WRITEABLE:
      return self->write();
    case LWS_CALLBACK_CLIENT_RECEIVE:
      self->take(length);
      break;
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
    case LWS_CALLBACK_CLIENT_CLOSED:
      self->ended = true;
      break;
    default:
      break;
    }
    return 0;
  }

  // The library masks the bytes in their place, so each message needs a copy.
  int write() {
    cork(1);
    const long end = corks ? std::max(0L, to_send - corked_together) : 0;
    while (to_send > end && lws_send_pipe_choked(wsi) == 0) {
      std::copy(text.begin(), text.end(), frame.begin() + LWS_PRE);
      auto *payload = reinterpret_cast<unsigned char *>(frame.data()) + LWS_PRE;
      if (lws_write(wsi, payload, text.size(), LWS_WRITE_TEXT) < 0)
        return -1;
      --to_send;
    }
    cork(0);
    if (to_send > 0)
      lws_callback_on_writable(wsi);
    return 0;
  }

  void cork(int value) const {
    if (corks)
      setsockopt(lws_get_socket_fd(wsi), IPPROTO_TCP, TCP_CORK, &value, sizeof value);
  }

  void take(std::size_t length) {
    message_bytes += length;
    if (lws_remaining_packet_payload(wsi) != 0 || lws_is_final_fragment(wsi) == 0)
      return;
    check_size(message_bytes, wanted_size);
    message_bytes = 0;
    ++received;
  }

  static constexpr long corked_together = 64;

  const bool corks;
  lws_protocols protocols[2]{};
  lws_context *context = nullptr;
  lws *wsi = nullptr;
  bool established = false;
  bool ended = false;
  std::string_view text;
  std::string frame;
  long to_send = 0;
  std::size_t message_bytes = 0;
  std::size_t wanted_size = 0;
  long received = 0;
};

} // namespace

std::unique_ptr<message_end> make_library_end(std::uint16_t port, bool corks) {
  return std::make_unique<library_end>(port, corks);
}

} // namespace vemk
