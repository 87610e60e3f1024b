// No memory at the n-th request, for every n of one message's way: what comes out at the far end is
// the exact message or nothing, or what the design says instead.

#include <set>

#include <gmock/gmock.h>

#include "fakes/fake_bus.h"
#include "fakes/fake_lws.h"
#include "unit/memory_shortage/memory_shortage_fixture.h"

namespace vemk {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr char no_memory_line[] = "buffer-info: append:95 Can't alloc memory\n";
constexpr char not_received_line[] =
    "websock-worker: websock-roaming->process_client_receive: can't receive message\n";
constexpr char not_sent_line[] =
    "websock-worker: websock-roaming->lws_send:Can't send msg type [0] to websocket\n";

/// What was refused over all runs of a way; "" stands for the run that passed.
std::set<std::string> refused_kinds(const std::vector<outcome_t> &outcomes) {
  std::set<std::string> kinds;
  for (const outcome_t &outcome : outcomes)
    kinds.insert(outcome.refused.kind);
  return kinds;
}

std::string description(const outcome_t &outcome) {
  return "refused: " + outcome.refused.kind + " of " + std::to_string(outcome.refused.size) +
         " bytes";
}

class MemoryShortageTest : public MemoryShortageFixture {
protected:
  std::vector<outcome_t> run_up(const std::string &message, int earlier = 0) {
    return run_all(
        [this, &message, earlier] {
          connect(earlier);
          fake_bus::add_message(message);
        },
        [this] {
          bus_step();
          writeable_step();
        });
  }

  std::vector<outcome_t> run_down(const std::vector<std::string> &pieces, int earlier = 0) {
    return run_all([this, earlier] { connect(earlier); },
                   [this, &pieces] {
                     receive_steps(pieces);
                     bus_step();
                   });
  }
};

/// A status message with any of its three members left out, as the writer leaves out what it has
/// no memory for; "null" stands for one without an object.
auto a_status_without_a_member(const std::string &cmd) {
  const std::string version = R"("version": "2.0")";
  const std::string service = R"("service": "internal-ipc")";
  const std::string command = R"("cmd": ")" + cmd + "\"";
  return AnyOf("null", "{ " + service + ", " + command + " }",
               "{ " + version + ", " + command + " }", "{ " + version + ", " + service + " }");
}

// Fault, in the process: no memory at request 1, 2, 3 ... of a short message's way to the server.
// Seen: its copy: "append:95 Can't alloc memory" and no message; a smart pointer or the queue:
// std::bad_alloc out of the worker "ipc"; its dump or its look-up: the exact message.
TEST_F(MemoryShortageTest, UpAShortMessageArrivesExactOrNotAtAll) {
  // The name in it is what has it looked up.
  const std::string message = R"({"service":"roam","cmd":"internal-ipc"})";
  const auto outcomes = run_up(message);
  for (const outcome_t &outcome : outcomes) {
    SCOPED_TRACE(description(outcome));
    const std::string &kind = outcome.refused.kind;
    EXPECT_EQ(outcome.ended, kind == "new" ? "ipc" : "");
    if (kind == "new" || kind == "realloc")
      EXPECT_THAT(outcome.at_server, IsEmpty());
    else
      EXPECT_THAT(outcome.at_server, ElementsAre(message));
    if (kind == "realloc")
      EXPECT_THAT(outcome.errors, ElementsAre(no_memory_line));
    else
      EXPECT_THAT(outcome.errors, IsEmpty());
    EXPECT_THAT(outcome.on_bus, IsEmpty());
  }
  EXPECT_THAT(refused_kinds(outcomes),
              UnorderedElementsAre("new", "realloc", "calloc", "json_tokener_parse", ""));
}

// Fault, in the process: no memory for the frame of a message of 20,000 bytes.
// Seen: "lws_send:Can't send msg type [0] to websocket", no frame, the next message passes.
TEST_F(MemoryShortageTest, UpALongMessageArrivesExactOrNotAtAll) {
  const std::string message(20000, 'x');
  bool frame_refused = false;
  for (const outcome_t &outcome : run_up(message)) {
    SCOPED_TRACE(description(outcome));
    EXPECT_THAT(outcome.at_server, AnyOf(IsEmpty(), ElementsAre(message)));
    if (outcome.refused.kind != "calloc" || outcome.refused.size != 16 + message.size())
      continue;
    frame_refused = true;
    EXPECT_THAT(outcome.at_server, IsEmpty());
    EXPECT_THAT(outcome.errors, ElementsAre(not_sent_line));
    EXPECT_EQ(outcome.ended, "");
  }
  EXPECT_TRUE(frame_refused);
}

// Fault, in the process: no memory at each request of the way of a message from the server in
// three pieces.
// Seen: the last piece: "append:95 Can't alloc memory", "can't receive message", nothing on the
// bus; an earlier piece: the message without it; a smart pointer: std::bad_alloc out of the worker
// "websock-roaming"; the dump: the exact message.
TEST_F(MemoryShortageTest, DownAMessageInThreePiecesArrivesAsDesigned) {
  const std::vector<std::string> pieces = {"first, ", "second piece, ", "and the third"};
  const std::string whole = pieces[0] + pieces[1] + pieces[2];
  const auto outcomes = run_down(pieces);
  std::set<std::size_t> refused_pieces;
  for (const outcome_t &outcome : outcomes) {
    SCOPED_TRACE(description(outcome));
    const auto [kind, size] = outcome.refused;
    EXPECT_EQ(outcome.ended, kind == "new" ? "websock-roaming" : "");
    EXPECT_THAT(outcome.at_server, IsEmpty());
    if (kind == "new") {
      EXPECT_THAT(outcome.on_bus, AnyOf(IsEmpty(), ElementsAre(whole)));
    } else if (kind != "realloc") {
      EXPECT_THAT(outcome.on_bus, ElementsAre(whole));
      EXPECT_THAT(outcome.errors, IsEmpty());
    } else if (size == whole.size() + 1) {
      EXPECT_THAT(outcome.on_bus, IsEmpty());
      EXPECT_THAT(outcome.errors, ElementsAre(no_memory_line, not_received_line));
    } else {
      const bool is_first = size == pieces[0].size() + 1;
      EXPECT_THAT(outcome.on_bus, ElementsAre((is_first ? pieces[1] : pieces[0]) + pieces[2]));
      EXPECT_THAT(outcome.errors, ElementsAre(no_memory_line));
    }
    if (kind == "realloc")
      refused_pieces.insert(size);
  }
  EXPECT_EQ(refused_pieces.size(), pieces.size());
  EXPECT_THAT(refused_kinds(outcomes), UnorderedElementsAre("new", "realloc", "calloc", ""));
}

// Without memory for a queue's next block a message arrives as it is or not at all.
// A block holds 32, 64 or 256 messages, depending on the library.
TEST_F(MemoryShortageTest, AMessageThatNeedsANewBlockOfItsQueueArrivesExactOrNotAtAll) {
  std::set<std::size_t> runs_up;
  std::set<std::size_t> runs_down;
  for (const int earlier : {0, 29, 31, 61, 63, 253, 255}) {
    const auto up = run_up("up", earlier);
    for (const outcome_t &outcome : up)
      EXPECT_THAT(outcome.at_server, AnyOf(IsEmpty(), ElementsAre("up"))) << description(outcome);
    runs_up.insert(up.size());
    const auto down = run_down({"down"}, earlier);
    for (const outcome_t &outcome : down)
      EXPECT_THAT(outcome.on_bus, AnyOf(IsEmpty(), ElementsAre("down"))) << description(outcome);
    runs_down.insert(down.size());
  }
  EXPECT_EQ(runs_up.size(), 2u);
  EXPECT_EQ(runs_down.size(), 2u);
}

// Fault, in the process: no memory at each request of a status request's way.
// Seen: the answer, or none, or the answer without the members for which there was no memory
// ("null" without the object); without memory to parse it the request goes on to the server.
TEST_F(MemoryShortageTest, AStatusRequestIsAnsweredWithWhatThereIsMemoryFor) {
  const auto outcomes = run_all(
      [this] {
        connect();
        fake_bus::add_message(status_request);
      },
      [this] {
        bus_step();
        writeable_step();
        bus_step();
      });
  for (const outcome_t &outcome : outcomes) {
    SCOPED_TRACE(description(outcome));
    const std::string &kind = outcome.refused.kind;
    EXPECT_EQ(!outcome.ended.empty(), kind == "new");
    if (kind == "json_tokener_parse")
      EXPECT_THAT(outcome.at_server, ElementsAre(status_request));
    else
      EXPECT_THAT(outcome.at_server, IsEmpty());
    if (kind.empty() || kind == "calloc")
      EXPECT_THAT(outcome.on_bus, ElementsAre(connected_status));
    else if (kind == "json_object_new_object")
      EXPECT_THAT(outcome.on_bus, ElementsAre("null"));
    else if (kind == "json_object_new_string" || kind == "json_object_object_add")
      EXPECT_THAT(outcome.on_bus, ElementsAre(a_status_without_a_member("connected")));
    else
      EXPECT_THAT(outcome.on_bus, IsEmpty());
  }
  EXPECT_THAT(refused_kinds(outcomes),
              UnorderedElementsAre("new", "realloc", "calloc", "json_tokener_parse",
                                   "json_object_new_object", "json_object_new_string",
                                   "json_object_object_add", "json_object_to_json_string", "strdup",
                                   ""));
}

// Fault, in the process: no memory at each request of the connection's establishment.
// Seen: "connected" is announced, or not, or without a member; without memory for the watchdog's
// timer or a smart pointer std::bad_alloc out of the worker "websock-roaming".
TEST_F(MemoryShortageTest, AnEstablishmentWithoutMemoryStillBridgesOrEndsTheProcess) {
  const auto outcomes = run_all(
      [this] {
        make_workers();
        websock_init();
        bus_step();
      },
      [this] {
        establishment_step();
        bus_step();
      });
  for (const outcome_t &outcome : outcomes) {
    SCOPED_TRACE(description(outcome));
    EXPECT_EQ(outcome.ended, outcome.refused.kind == "new" ? "websock-roaming" : "");
    EXPECT_THAT(outcome.at_server, IsEmpty());
    EXPECT_THAT(outcome.on_bus, AnyOf(IsEmpty(), ElementsAre(connected_status),
                                      ElementsAre(a_status_without_a_member("connected"))));
  }
  EXPECT_THAT(refused_kinds(outcomes),
              AllOf(Contains("new"), Contains("realloc"), Contains("json_object_new_object")));
  EXPECT_THAT(outcomes.back().on_bus, ElementsAre(connected_status));
}

// Fault, in the process: no memory at each request of a connection attempt.
// Seen: the attempt is made with or without its "disconnected"; without memory for a smart pointer
// std::bad_alloc leaves init(), which ends the process.
TEST_F(MemoryShortageTest, AnAttemptWithoutMemoryIsStillMadeOrEndsTheProcess) {
  const auto outcomes = run_all([this] { make_workers(); },
                                [this] {
                                  websock_init();
                                  bus_step();
                                  establishment_step();
                                });
  for (const outcome_t &outcome : outcomes) {
    SCOPED_TRACE(description(outcome));
    EXPECT_EQ(outcome.ended, outcome.refused.kind == "new" ? "websock-roaming" : "");
    EXPECT_THAT(outcome.at_server, IsEmpty());
  }
  EXPECT_THAT(refused_kinds(outcomes), Contains("new"));
  EXPECT_THAT(outcomes.back().on_bus, ElementsAre(disconnected_status, connected_status));
}

} // namespace
} // namespace vemk
