// What changes with whole messages. Without them an empty last fragment delivers nothing and a
// partial message outlives its connection; websock_callbacks_test.cpp shows that.
//
// Several server libraries end each message with an empty last fragment: one writes the payload as
// it comes and learns only afterwards that it was all. 60 messages of such a service came out as
// none, and then as one that held them all.
#include <cstddef>
#include <memory>
#include <string>

#include "unit/websock/websock_fixture.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class WebsockWholeMessagesTest : public WebsockFixture {
protected:
  WebsockWholeMessagesTest() { make_connected_worker(true); }
};

// The first fragment's bytes are queued with the lines of any last piece, and the result is 0.
TEST_F(WebsockWholeMessagesTest, EmptyLastPieceDeliversTheMessage) {
  deliver_middle_piece("begun");
  const auto message = worker->rx_buffer;
  forget_records();
  char byte = 'x';
  EXPECT_EQ(worker->process_client_receive(fake_lws::connection(), nullptr, &byte, 0), 0);
  EXPECT_EQ(fake_log::lines(), reception_lines("begun"));
  EXPECT_NE(worker->rx_buffer, message);
  EXPECT_EQ(received_so_far(), "");
  EXPECT_THAT(take_to_bus(), ElementsAre("begun"));
}

// A null last piece counts as empty, whatever its length, 0, 5 or 4096, and needs no memory.
TEST_F(WebsockWholeMessagesTest, NullLastPieceDeliversTheMessage) {
  for (const std::size_t length : {0u, 5u, 4096u}) {
    deliver_middle_piece("begun");
    {
      const fake_memory::shortage shortage;
      EXPECT_EQ(receive_null(length), 0) << length;
    }
    EXPECT_THAT(take_to_bus(), ElementsAre("begun")) << length;
  }
}

// 60 messages, each ended by an empty fragment, are queued as 60.
TEST_F(WebsockWholeMessagesTest, NoMessageIsJoinedToAnother) {
  for (int i = 0; i < 60; ++i) {
    deliver_middle_piece(std::to_string(i));
    EXPECT_EQ(fake_lws::deliver_piece(""), 0);
    EXPECT_THAT(take_to_bus(), ElementsAre(std::to_string(i)));
  }
}

// Three fragments and chunks of one are joined as ever, and end with their last byte.
TEST_F(WebsockWholeMessagesTest, OtherMessagesAreReceivedAsEver) {
  deliver_middle_piece("one ");
  deliver_middle_piece("two ");
  fake_lws::deliver_piece("three");
  fake_lws::set_piece(4, true);
  fake_lws::deliver_piece("begun");
  EXPECT_EQ(received_so_far(), "begun");
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece(" end");
  EXPECT_THAT(take_to_bus(), ElementsAre("one two three", "begun end"));
}

// Empty pieces that are not the last, or have a rest to come, deliver nothing.
TEST_F(WebsockWholeMessagesTest, OnlyTheLastPieceEndsAMessage) {
  deliver_middle_piece("begun");
  fake_lws::set_piece(0, false);
  EXPECT_EQ(receive_null(0), 0);
  fake_lws::set_piece(9, true);
  EXPECT_EQ(receive_null(0), 0);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  EXPECT_EQ(received_so_far(), "begun");
}

// With nothing received before it the result is -1, also behind an empty middle piece.
TEST_F(WebsockWholeMessagesTest, EmptyMessageStaysUndelivered) {
  EXPECT_EQ(receive_null(0), -1);
  EXPECT_EQ(receive_null(5), -1);
  deliver_middle_piece("");
  EXPECT_EQ(receive_null(0), -1);
  EXPECT_THAT(take_to_bus(), IsEmpty());
  fake_lws::deliver_piece("next");
  EXPECT_THAT(take_to_bus(), ElementsAre("next"));
}

// What a close cut off is forgotten with its connection, and the next message stands alone.
TEST_F(WebsockWholeMessagesTest, CloseForgetsThePartialMessage) {
  fake_lws::set_piece(100, true);
  fake_lws::deliver_piece("cut off, ");
  fake_lws::deliver(fake_lws::closed_reason);
  reconnect();
  EXPECT_EQ(received_so_far(), "");
  fake_lws::set_piece(0, true);
  fake_lws::deliver_piece("then whole");
  EXPECT_THAT(take_to_bus(), ElementsAre("then whole"));
}

// The same where the watchdog ends the connection, and an empty last piece comes on the next one.
TEST_F(WebsockWholeMessagesTest, WatchdogForgetsThePartialMessage) {
  deliver_middle_piece("cut off, ");
  let_pass(60);
  EXPECT_FALSE(worker->running);
  reconnect();
  EXPECT_EQ(receive_null(0), -1);
  fake_lws::deliver_piece("then whole");
  EXPECT_THAT(take_to_bus(), ElementsAre("then whole"));
}

// A partial message is freed before the wait for the next attempt, with what deinit added to it.
TEST_F(WebsockWholeMessagesTest, PieceDuringTheContextsEndIsForgotten) {
  deliver_middle_piece("cut ");
  const std::weak_ptr<buffer_info_t> partial = worker->rx_buffer;
  fake_lws::on_destroy([] { deliver_middle_piece("off"); });
  worker->deinit();
  EXPECT_TRUE(partial.expired());
  EXPECT_EQ(received_so_far(), "");
}

} // namespace
} // namespace vemk
