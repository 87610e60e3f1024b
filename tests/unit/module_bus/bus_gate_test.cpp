// Peers that speak the messaging library's protocol by hand, and send what no peer should.

#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bus_test_base.h"
#include "module_bus/bus_folder.h"
#include "support/child_process.h"

namespace vemk {
namespace {

class raw_peer {
public:
  explicit raw_peer(const std::string &path) : end(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    connected = connect(end, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  }
  ~raw_peer() { close(end); }
  raw_peer(const raw_peer &) = delete;
  raw_peer &operator=(const raw_peer &) = delete;

  /// Says what every peer begins with, and hears the other side out: a message that overtakes its
  /// READY would end the connection.
  void greet(std::string_view socket_type) {
    std::string greeting =
        "\xFF" + std::string(8, '\0') + "\x7F\x03" + std::string(1, '\0') + "NULL";
    greeting.resize(64, '\0');
    send(greeting);
    std::string ready = std::string("\5READY\013Socket-Type") + std::string(3, '\0');
    ready += static_cast<char>(socket_type.size());
    send_frame(4, ready += socket_type);
    receive(greeting.size());
    receive(static_cast<unsigned char>(receive(2).at(1)));
  }

  void send_frame(char flags, const std::string &body) {
    send(std::string(1, flags) + static_cast<char>(body.size()) + body);
  }

  /// False when the connection has ended.
  bool send(std::string_view bytes) {
    return ::send(end, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  /// True once the other side has ended the connection; false if it did not soon.
  bool is_cut_off() const {
    const bus_deadline deadline = in(soon);
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd wanted{end, POLLIN, 0};
      char bytes[256];
      if (poll(&wanted, 1, 100) > 0 && recv(end, bytes, sizeof bytes, 0) <= 0)
        return true;
    }
    return false;
  }

  bool connected = false;

private:
  std::string receive(std::size_t count) const {
    std::string bytes(count, '\0');
    EXPECT_EQ(recv(end, bytes.data(), count, MSG_WAITALL), static_cast<ssize_t>(count));
    return bytes;
  }

  const int end;
};

class BusGateTest : public joined_bus_test {
protected:
  void expect_service_for_others() {
    bus_sender sender(folder, daemon_module);
    ASSERT_TRUE(sender.send("from another", in(soon)));
    EXPECT_EQ(next_payload(), "from another");
    subscribed_listener listener(folder);
    ASSERT_EQ(send("to another"), 0);
    EXPECT_EQ(listener.receive(in(soon)), "to another");
  }
};

// It is cut off at the first part; its message before that arrives, and others go on.
TEST_F(BusGateTest, PeerThatSendsPartsIsCutOff) {
  // The library kept the parts until the last one: three million of them took 450 MB.
  raw_peer peer(inbox_path(folder, daemon_module));
  peer.greet("DEALER");
  peer.send_frame(0, "Dwhole");
  peer.send_frame(1, "Dfirst part");
  peer.send_frame(0, "last part");
  EXPECT_TRUE(peer.is_cut_off());
  EXPECT_EQ(next_payload(), "whole");
  expect_service_for_others();
}

// A size of 64 MiB and two bytes cuts the peer off, at the inbox, and of 1025 at the outlet.
TEST_F(BusGateTest, PeerThatAnnouncesTooLongAFrameIsCutOff) {
  // A frame of 1 GiB was taken whole, and only then dropped.
  raw_peer sender(inbox_path(folder, daemon_module));
  sender.greet("DEALER");
  sender.send(std::string_view("\2\0\0\0\0\4\0\0\2", 9));
  EXPECT_TRUE(sender.is_cut_off());
  raw_peer listener(outlet_path(folder, daemon_module));
  listener.greet("SUB");
  listener.send(std::string_view("\2\0\0\0\0\0\0\4\1", 9));
  EXPECT_TRUE(listener.is_cut_off());
  expect_service_for_others();
}

// Subscriptions without an end are cut off after 64 KiB.
TEST_F(BusGateTest, ListenerThatNeverEndsToSubscribeIsCutOff) {
  // 300,000 of them took 1.9 GB, and the module was busy with them.
  raw_peer listener(outlet_path(folder, daemon_module));
  listener.greet("SUB");
  int sent = 0;
  while (sent < 1000 && listener.send("\0\376\1" + std::string(253, 'x')))
    ++sent;
  EXPECT_TRUE(listener.is_cut_off());
  expect_service_for_others();
}

// Another process finds the library's own sockets closed to it, although it may open their files.
TEST_F(BusGateTest, NobodyGetsPastTheGate) {
  for (const std::string &path :
       {inner_inbox_path(folder, daemon_module), inner_outlet_path(folder, daemon_module)}) {
    ASSERT_TRUE(std::filesystem::exists(path));
    const pid_t child = start_child([&path] {
      raw_peer peer(path);
      _exit(peer.connected && peer.is_cut_off() ? 0 : 1);
    });
    EXPECT_EQ(wait_for_child(child), 0) << path;
  }
  expect_service_for_others();
}

// With 200 peers that say nothing a sender and a listener are served as without them.
TEST_F(BusGateTest, PeersThatSayNothingHoldNobodyUp) {
  std::vector<std::unique_ptr<raw_peer>> peers;
  for (int i = 0; i < 200; ++i)
    peers.push_back(std::make_unique<raw_peer>(inbox_path(folder, daemon_module)));
  expect_service_for_others();
  peers.clear();
  expect_service_for_others();
}

} // namespace
} // namespace vemk
