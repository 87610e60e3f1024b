// Ends over plain sockets. They send prebuilt frames and look at the heads of frames alone, so that
// they never are what limits a measurement.
#include "harness/message_end.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "roam-service/http.h"

namespace vemk {

namespace {

constexpr std::size_t block_bytes = 256 * 1024;

void check(bool done, const char *call) {
  if (!done)
    give_up(std::string(call) + " failed: " + std::generic_category().message(errno));
}

/// The head of a frame, and the kind and size of the body behind it.
struct frame_t {
  enum class kind { part, last_part, ping, end, other };

  kind what;
  std::size_t head_bytes;
  std::size_t body_bytes;
};

/// An unsigned number of `width` bytes, the highest first.
std::size_t big_endian(std::string_view bytes, std::size_t width) {
  std::size_t value = 0;
  for (const char byte : bytes.substr(0, width))
    value = value << 8 | static_cast<unsigned char>(byte);
  return value;
}

std::string as_big_endian(std::size_t value, std::size_t width) {
  std::string bytes;
  for (std::size_t i = width; i > 0; --i)
    bytes.push_back(static_cast<char>(value >> (8 * (i - 1))));
  return bytes;
}

/// A connected socket, and the frames that arrive on it.
class stream_end : public message_end {
public:
  ~stream_end() override {
    if (connection >= 0)
      close(connection);
  }

  void send(std::string_view payload, long count) override {
    const std::string frame = framed(payload);
    const long at_once = std::max<long>(1, static_cast<long>(block_bytes / frame.size()));
    std::string frames;
    for (long i = 0; i < std::min(count, at_once); ++i)
      frames += frame;
    for (; count >= at_once; count -= at_once)
      write(frames);
    frames.resize(frame.size() * static_cast<std::size_t>(count));
    write(frames);
  }

  void receive(std::size_t size, long count) override {
    wanted_size = size;
    for (received = 0; received < count;)
      take_block(0);
    if (received > count)
      give_up("more messages arrived than were sent");
  }

  int descriptor() const override { return connection; }

  void serve() override { take_block(MSG_DONTWAIT); }

protected:
  /// Returns nothing while the head is not complete.
  virtual std::optional<frame_t> frame_at(std::string_view bytes) const = 0;
  virtual std::string framed(std::string_view payload) const = 0;
  virtual std::string answer_to_ping(std::string_view body) const = 0;

  void use(int socket) {
    connection = socket;
    const int on = 1;
    check(setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "setsockopt");
  }

  void connect_to(std::uint16_t port) {
    use(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    check(connect(connection, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0,
          "connect");
  }

  void write(const std::string &bytes) const {
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t sent =
          ::send(connection, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      check(sent >= 0, "send");
      done += static_cast<std::size_t>(sent);
    }
  }

  /// Reads a head of lines, and returns it without its empty line.
  std::string read_lines() const {
    std::string lines;
    char byte = 0;
    while (lines.size() < 4 || lines.compare(lines.size() - 4, 4, "\r\n\r\n") != 0) {
      if (recv(connection, &byte, 1, 0) != 1)
        give_up("the connection ended during the handshake");
      lines.push_back(byte);
    }
    lines.resize(lines.size() - 2);
    return lines;
  }

private:
  void take_block(int flags) {
    const ssize_t got = recv(connection, block.data() + held, block.size() - held, flags);
    if (got < 0 && errno == EAGAIN)
      return;
    if (got <= 0)
      give_up("the connection ended");
    held += static_cast<std::size_t>(got);
    std::string_view bytes(block.data(), held);
    while (take_body(bytes) && take_head(bytes)) {
    }
    held = bytes.size();
    std::memmove(block.data(), bytes.data(), held);
  }

  /// Skips what is there of a body. False when the rest has yet to come.
  bool take_body(std::string_view &bytes) {
    const std::size_t there = std::min(bytes.size(), body_left);
    bytes.remove_prefix(there);
    body_left -= there;
    if (body_left > 0)
      return false;
    if (in_last_part)
      take_message();
    return true;
  }

  bool take_head(std::string_view &bytes) {
    const std::optional<frame_t> found = frame_at(bytes);
    if (!found)
      return false;
    const frame_t &frame = *found;
    switch (frame.what) {
    case frame_t::kind::part:
    case frame_t::kind::last_part:
      in_last_part = frame.what == frame_t::kind::last_part;
      message_bytes += frame.body_bytes;
      break;
    case frame_t::kind::ping:
      if (bytes.size() < frame.head_bytes + frame.body_bytes)
        return false;
      write(answer_to_ping(bytes.substr(0, frame.head_bytes + frame.body_bytes)));
      break;
    case frame_t::kind::end:
      give_up("the other side closes the connection");
    case frame_t::kind::other:
      break;
    }
    bytes.remove_prefix(frame.head_bytes);
    body_left = frame.body_bytes;
    return true;
  }

  void take_message() {
    check_size(message_bytes, wanted_size);
    ++received;
    message_bytes = 0;
    in_last_part = false;
  }

  int connection = -1;
  std::vector<char> block = std::vector<char>(block_bytes);
  std::size_t held = 0;
  std::size_t body_left = 0;
  bool in_last_part = false;
  std::size_t message_bytes = 0;
  std::size_t wanted_size = 0;
  long received = 0;
};

constexpr unsigned char final_bit = 0x80;
constexpr unsigned char mask_bit = 0x80;
constexpr std::size_t mask_bytes = 4;
constexpr unsigned char text_frame = 1;
constexpr unsigned char close_frame = 8;
constexpr unsigned char ping_frame = 9;
constexpr unsigned char pong_frame = 10;

class websocket_end : public stream_end {
protected:
  /// A client's frames are masked, here with zeros, which change nothing.
  explicit websocket_end(bool with_mask) : masks(with_mask) {}

  std::optional<frame_t> frame_at(std::string_view bytes) const override {
    if (bytes.size() < 2)
      return std::nullopt;
    const auto first = static_cast<unsigned char>(bytes[0]);
    const auto second = static_cast<unsigned char>(bytes[1]);
    const std::size_t short_length = second & ~mask_bit;
    const std::size_t width = short_length == 127 ? 8 : short_length == 126 ? 2 : 0;
    const std::size_t head_bytes = 2 + width + ((second & mask_bit) != 0 ? mask_bytes : 0);
    if (bytes.size() < head_bytes)
      return std::nullopt;
    return frame_t{kind_of(first), head_bytes,
                   width > 0 ? big_endian(bytes.substr(2), width) : short_length};
  }

  std::string framed(std::string_view payload) const override {
    return head(text_frame, payload.size()).append(payload);
  }

  /// The mask stays the same, and so do the masked bytes.
  std::string answer_to_ping(std::string_view ping) const override {
    std::string pong = head(pong_frame, big_endian(ping.substr(1), 1) & ~std::size_t{mask_bit});
    if ((static_cast<unsigned char>(ping[1]) & mask_bit) == 0)
      return pong.append(ping.substr(2));
    for (std::size_t i = 2 + mask_bytes; i < ping.size(); ++i)
      pong.push_back(static_cast<char>(ping[i] ^ ping[2 + (i - 2) % mask_bytes]));
    return pong;
  }

private:
  static frame_t::kind kind_of(unsigned char first) {
    switch (first & 0x0F) {
    case close_frame:
      return frame_t::kind::end;
    case ping_frame:
      return frame_t::kind::ping;
    case pong_frame:
      return frame_t::kind::other;
    default:
      return (first & final_bit) != 0 ? frame_t::kind::last_part : frame_t::kind::part;
    }
  }

  std::string head(unsigned char opcode, std::size_t length) const {
    const std::size_t width = length > 0xFFFF ? 8 : length > 125 ? 2 : 0;
    const std::size_t short_length = width == 8 ? 127 : width == 2 ? 126 : length;
    std::string bytes{static_cast<char>(final_bit | opcode)};
    bytes.push_back(static_cast<char>(short_length | (masks ? mask_bit : 0U)));
    return bytes + as_big_endian(length, width) + std::string(masks ? mask_bytes : 0, '\0');
  }

  const bool masks;
};

class raw_server : public websocket_end {
public:
  raw_server() : websocket_end(false), listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    check(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "bind");
    check(listen(listener, 1) == 0, "listen");
  }

  ~raw_server() override { close(listener); }

  std::uint16_t port() const override {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    check(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) == 0,
          "getsockname");
    return ntohs(address.sin_port);
  }

  void wait_until_connected() override {
    use(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    const auto request = parse_request(read_lines());
    if (!request || !is_upgrade(*request))
      give_up("the client does not ask for a WebSocket");
    write(upgrade_answer(*request, request->header("sec-websocket-protocol")));
  }

private:
  const int listener;
};

class raw_client : public websocket_end {
public:
  explicit raw_client(std::uint16_t port) : websocket_end(true) {
    connect_to(port);
    write("GET /roam HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
          "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n\r\n");
  }

  void wait_until_connected() override { read_lines(); }
};

constexpr unsigned char mqtt_publish = 0x30;

class mqtt_end : public stream_end {
public:
  mqtt_end(std::uint16_t port, std::string_view publishes, std::string_view receives)
      : topic(with_length(publishes)) {
    connect_to(port);
    // Without a limit on the time between two packets.
    write(packet(0x10, with_length("MQTT") + std::string{4, 2, 0, 0} +
                           with_length("bench-" + std::string(publishes))));
    write(packet(0x82, std::string{0, 1} + with_length(receives) + std::string(1, '\0')));
  }

protected:
  std::optional<frame_t> frame_at(std::string_view bytes) const override {
    std::size_t length = 0;
    std::size_t head_bytes = 1;
    unsigned char byte = 0x80;
    for (unsigned shift = 0; (byte & 0x80) != 0; shift += 7, ++head_bytes) {
      if (head_bytes >= bytes.size())
        return std::nullopt;
      byte = static_cast<unsigned char>(bytes[head_bytes]);
      length |= static_cast<std::size_t>(byte & 0x7F) << shift;
    }
    if ((static_cast<unsigned char>(bytes[0]) & 0xF0) != mqtt_publish)
      return frame_t{frame_t::kind::other, head_bytes, length};
    if (bytes.size() < head_bytes + 2)
      return std::nullopt;
    const std::size_t topic_bytes = 2 + big_endian(bytes.substr(head_bytes), 2);
    if (bytes.size() < head_bytes + topic_bytes)
      return std::nullopt;
    return frame_t{frame_t::kind::last_part, head_bytes + topic_bytes, length - topic_bytes};
  }

  std::string framed(std::string_view payload) const override {
    return packet(mqtt_publish, topic + std::string(payload));
  }

  std::string answer_to_ping(std::string_view) const override { return {}; }

private:
  static std::string with_length(std::string_view text) {
    return as_big_endian(text.size(), 2).append(text);
  }

  static std::string packet(unsigned char kind, const std::string &body) {
    std::string bytes(1, static_cast<char>(kind));
    std::size_t length = body.size();
    do {
      bytes.push_back(static_cast<char>(length % 128 + (length >= 128 ? 128 : 0)));
      length /= 128;
    } while (length > 0);
    return bytes + body;
  }

  const std::string topic;
};

} // namespace

std::unique_ptr<message_end> make_server_end() {
  return std::make_unique<raw_server>();
}

std::unique_ptr<message_end> make_client_end(std::uint16_t port) {
  return std::make_unique<raw_client>(port);
}

std::unique_ptr<message_end> make_mqtt_end(std::uint16_t port, std::string_view publishes,
                                           std::string_view receives) {
  return std::make_unique<mqtt_end>(port, publishes, receives);
}

} // namespace vemk
