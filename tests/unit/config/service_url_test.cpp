#include "config/service_url.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace vemk {

namespace {

using piece_t = std::optional<std::string>;
constexpr std::nullopt_t none = std::nullopt;

struct url_case_t {
  std::string text;
  piece_t scheme;
  piece_t host;
  piece_t port;
  piece_t path;
};

piece_t as_piece(const char *text) {
  return text != nullptr ? piece_t(text) : none;
}

std::string shown(const piece_t &piece) {
  return piece ? '"' + *piece + '"' : "none";
}

std::string shown(const url_case_t &url) {
  return "scheme " + shown(url.scheme) + " host " + shown(url.host) + " port " + shown(url.port) +
         " path " + shown(url.path);
}

std::string split(std::string text) {
  const service_url_t url = split_service_url(text.data());
  return shown(url_case_t{"", as_piece(url.scheme), as_piece(url.host), as_piece(url.port),
                          as_piece(url.path)});
}

} // namespace

// The first "://", then the first ":", then the first "/" split the text; what lacks one is none.
TEST(ServiceUrlTest, PiecesOfEveryForm) {
  const url_case_t cases[] = {
      {"ws://192.0.2.7:8080/roam", "ws", "192.0.2.7", "8080", "roam"},
      {"192.0.2.7:8080/", none, "192.0.2.7", "8080", ""},
      {"ws://host:80", "ws", "host", "80", none},
      {"ws://host/roam", "ws", "host", none, "roam"},
      {"host", none, "host", none, none},
      {"", none, "", none, none},
      {"://", "", "", none, none},
      {"://host:1/p", "", "host", "1", "p"},
      {":/", none, "", "", ""},
      {"wss://host:443/roam", "wss", "host", "443", "roam"},
      // The first separator of a kind counts.
      {"a://b://c:1/d", "a", "b", "", "/c:1/d"},
      {"ws://host:80/a/b:c", "ws", "host", "80", "a/b:c"},
      {"host:80:81/p", none, "host", "80:81", "p"},
      // A "/" in front of the port belongs to the host.
      {"ws://host/a:80/b", "ws", "host/a", "80", "b"},
      {"ws://host/a:80", "ws", "host/a", "80", none},
      // A scheme separator counts wherever it stands.
      {"host:80/go?to=ws://x", "host:80/go?to=ws", "x", none, none},
      {"ws:/host:80/p", none, "ws", "", "host:80/p"},
      {"ws://[2001:db8::1]:80/p", "ws", "[2001", "db8::1]:80", "p"},
  };
  for (const url_case_t &expected : cases)
    EXPECT_EQ(shown(expected), split(expected.text)) << expected.text;
}

} // namespace vemk
