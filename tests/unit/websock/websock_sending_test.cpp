#include <memory>
#include <pthread.h>
#include <string>
#include <vector>

#include "unit/websock/websock_fixture.h"

namespace vemk {
namespace {

using testing::ElementsAre;

constexpr std::size_t mebibyte = 1024 * 1024;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers keep tables of their own on every thread's stack.
constexpr std::size_t small_stack = 2 * mebibyte;
#else
constexpr std::size_t small_stack = 128 * 1024;
#endif

struct send_job_t {
  open_websock_worker *worker;
  const std::string *payload;
  int result;
};

void *send_on_this_stack(void *argument) {
  auto *const job = static_cast<send_job_t *>(argument);
  job->result = job->worker->lws_send(fake_lws::connection(), job->payload->data(),
                                      job->payload->size(), LWS_WRITE_TEXT);
  return nullptr;
}

class WebsockSendingTest : public WebsockFixture {
protected:
  int send(const std::string &payload, lws_write_protocol type = LWS_WRITE_TEXT) {
    return worker->lws_send(fake_lws::connection(), payload.data(), payload.size(), type);
  }

  int send_from_a_small_stack(const std::string &payload) {
    send_job_t job{worker.get(), &payload, 0};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    EXPECT_EQ(pthread_attr_setstacksize(&attributes, small_stack), 0);
    pthread_t thread;
    const int failed = pthread_create(&thread, &attributes, send_on_this_stack, &job);
    EXPECT_EQ(failed, 0);
    if (failed == 0)
      pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    return job.result;
  }

  /// Text that repeats at no power of two.
  static std::string payload_of(std::size_t length) {
    std::string payload(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
      payload[i] = static_cast<char>(i % 251);
    return payload;
  }
};

// 0 bytes to 1 MiB, around 16 KiB byte by byte: one frame each, 16 zeroed bytes in front.
TEST_F(WebsockSendingTest, FramesOfEverySizeAreWrittenWhole) {
  make_connected_worker();
  // Around 16 KiB a frame moves from the stack to the heap.
  const std::vector<std::size_t> lengths = {0,     1,     125,   126,   4096,  16367, 16368,
                                            16369, 16383, 16384, 16385, 65535, 65536, mebibyte};
  for (const std::size_t length : lengths) {
    SCOPED_TRACE(length);
    const std::string payload = payload_of(length);
    EXPECT_EQ(send(payload), static_cast<int>(length));
    const fake_lws::frame_t frame = fake_lws::frames().back();
    EXPECT_TRUE(frame.payload == payload);
    EXPECT_EQ(frame.type, 0);
    EXPECT_TRUE(frame.headroom_was_zero);
  }
  EXPECT_EQ(fake_lws::frames().size(), lengths.size());
}

// A ping with null data is written and logged as "[5] len [6/0]  to"; with length 3 it is zeros.
TEST_F(WebsockSendingTest, EmptyFrameNeedsNoData) {
  make_connected_worker();
  EXPECT_EQ(worker->lws_send(fake_lws::connection(), nullptr, 0, LWS_WRITE_PING), 6);
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_write wsi1 0 5"));
  EXPECT_TRUE(fake_lws::frames().back().headroom_was_zero);
  EXPECT_THAT(fake_log::lines(), ElementsAre(sent_line(5, 6, 0)));
  EXPECT_EQ(worker->lws_send(fake_lws::connection(), nullptr, 3, LWS_WRITE_TEXT), 3);
  EXPECT_EQ(fake_lws::frames().back().payload, std::string(3, '\0'));
}

// A message of 0 bytes is dumped as the heading alone and sent as a text frame of length 0.
TEST_F(WebsockSendingTest, EmptyBusMessageIsSentAsAnEmptyTextFrame) {
  make_connected_worker();
  worker->from_queue_send(fake_lws::connection(), std::make_shared<buffer_info_t>());
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_write wsi1 0 0"));
  EXPECT_THAT(fake_log::lines(), ElementsAre(line("websock-roaming->From queue\n"), dump_line(""),
                                             sent_line(0, 0, 0)));
}

// NUL, "%n", 0xFF and UTF-8 leave in the frame unchanged.
TEST_F(WebsockSendingTest, BytesLeaveAsTheyAre) {
  make_connected_worker();
  const std::string bytes("\0%n\xFF\xC3\xA4\0", 7);
  push_from_bus(bytes);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  ASSERT_EQ(fake_lws::frames().size(), 1u);
  EXPECT_EQ(fake_lws::frames()[0].payload, bytes);
}

// A result of 2 or 0 for 4 bytes gives "len [2/4]  to", is returned, and the rest is not sent.
TEST_F(WebsockSendingTest, ShortWriteIsOnlyLogged) {
  make_connected_worker();
  fake_lws::script_write_results({2, 0});
  EXPECT_EQ(send("four"), 2);
  EXPECT_EQ(send("four"), 0);
  EXPECT_EQ(fake_lws::frames().size(), 2u);
  EXPECT_THAT(fake_log::lines(), ElementsAre(sent_line(0, 2, 4), sent_line(0, 0, 4)));
}

// Results -1 and -7 log "Can't send msg type" with [0] and [5], and are returned.
TEST_F(WebsockSendingTest, FailedWriteIsLoggedWithItsType) {
  make_connected_worker();
  fake_lws::script_write_results({-1, -7});
  EXPECT_EQ(send("four"), -1);
  EXPECT_EQ(send("", LWS_WRITE_PING), -7);
  EXPECT_THAT(fake_log::lines(), ElementsAre(failed_line(0), failed_line(5)));
}

// The failure line needs the error bit alone, the success line the info bit alone.
TEST_F(WebsockSendingTest, FailureIsAnErrorLineAndSuccessAnInfoLine) {
  for (const std::uint32_t mask : {log_category_error, log_category_info}) {
    g_log_level = mask;
    make_connected_worker();
    fake_lws::script_write_results({4, -1});
    send("four");
    send("four");
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(mask == log_category_error ? failed_line(0) : sent_line(0, 4, 4)));
  }
}

// A thread with 128 KiB of stack sends 16 MiB in one frame, byte for byte.
// A frame area as long as the message once stood on the thread's stack. The device's threads have
// so little of it that a single long message from the bus ended the process.
TEST_F(WebsockSendingTest, SixteenMebibytesAreSentFromASmallStack) {
  make_connected_worker();
  const std::string payload = payload_of(16 * mebibyte);
  EXPECT_EQ(send_from_a_small_stack(payload), static_cast<int>(payload.size()));
  ASSERT_EQ(fake_lws::frames().size(), 1u);
  EXPECT_TRUE(fake_lws::frames()[0].payload == payload);
  EXPECT_TRUE(fake_lws::frames()[0].headroom_was_zero);
  EXPECT_THAT(fake_log::lines(), ElementsAre(sent_line(0, 16 * 1024 * 1024, payload.size())));
}

// The largest frame assembled on the stack, 16368 bytes, fits 128 KiB of it.
TEST_F(WebsockSendingTest, LargestStackFrameFitsASmallStack) {
  make_connected_worker();
  EXPECT_EQ(send_from_a_small_stack(payload_of(16 * 1024 - 16)), 16 * 1024 - 16);
}

// 1 MiB without memory is a failed send of type 0; the next message goes out.
TEST_F(WebsockSendingTest, NoMemoryForALargeFrameLosesOnlyThatMessage) {
  make_connected_worker();
  push_from_bus(payload_of(mebibyte));
  push_from_bus("small");
  forget_records();
  {
    const fake_memory::shortage shortage(mebibyte);
    fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  }
  EXPECT_THAT(fake_lws::calls(), ElementsAre("lws_callback_on_writable wsi1"));
  EXPECT_EQ(fake_log::lines().back(), failed_line(0));
  EXPECT_TRUE(worker->alive);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE);
  ASSERT_EQ(fake_lws::frames().size(), 1u);
  EXPECT_EQ(fake_lws::frames()[0].payload, "small");
}

// Lengths of 2 GiB and of the largest size_t down to 16 less give -1 and reach no library.
// The frame's size once wrapped round to a few bytes of the stack, and the payload went over it.
TEST_F(WebsockSendingTest, ALengthThatLeavesNoRoomForTheHeadroomIsNotSent) {
  make_connected_worker();
  const fake_memory::shortage shortage(mebibyte);
  constexpr std::size_t longest = static_cast<std::size_t>(-1);
  for (const std::size_t length : {std::size_t{0x80000000u}, longest - 16, longest - 15, longest}) {
    forget_records();
    EXPECT_EQ(worker->lws_send(fake_lws::connection(), "x", length, LWS_WRITE_TEXT), -1);
    EXPECT_THAT(fake_log::lines(), ElementsAre(failed_line(0)));
    EXPECT_THAT(fake_lws::calls(), testing::IsEmpty());
  }
}

// Up to 16368 bytes are sent while no byte can be allocated, and 16369 are not.
TEST_F(WebsockSendingTest, SmallFramesNeedNoHeap) {
  make_connected_worker();
  const fake_memory::shortage shortage;
  EXPECT_EQ(send("small"), 5);
  EXPECT_EQ(send(payload_of(16 * 1024 - 16)), 16 * 1024 - 16);
  EXPECT_EQ(send(payload_of(16 * 1024 - 15)), -1);
}

// The block of a frame of 1 MiB goes to free before lws_send returns.
TEST_F(WebsockSendingTest, LargeFramesGiveTheirMemoryBack) {
  make_connected_worker();
  fake_memory::watch_next_calloc();
  EXPECT_EQ(send(payload_of(mebibyte)), static_cast<int>(mebibyte));
  EXPECT_EQ(fake_memory::frees_of_watched(), 1);
}

} // namespace
} // namespace vemk
