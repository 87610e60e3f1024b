#include "worker/wake_event.h"

#include <optional>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_libc.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class WakeEventTest : public testing::Test {
protected:
  WakeEventTest() {
    fake_libc::reset();
    event.emplace();
    EXPECT_EQ(pipe(ends), 0);
  }

  ~WakeEventTest() override {
    fake_libc::reset();
    close(ends[0]);
    close(ends[1]);
  }

  /// The milliseconds that a wait takes.
  std::int64_t wait(std::int32_t milliseconds, int descriptor = -1) const {
    const std::int64_t start_us = fake_libc::now_us();
    event->wait(milliseconds, descriptor);
    return (fake_libc::now_us() - start_us) / 1000;
  }

  void make_readable() { EXPECT_EQ(write(ends[1], "x", 1), 1); }

  int ends[2] = {-1, -1};
  std::optional<wake_event> event;
};

// Waits of 250 ms, 0 and an hour take just these times.
TEST_F(WakeEventTest, WaitEndsWithItsTime) {
  EXPECT_EQ(wait(250), 250);
  EXPECT_EQ(wait(0), 0);
  EXPECT_EQ(wait(3600000, ends[0]), 3600000);
}

// Three signals before a wait end it at once, and leave nothing for the next one.
TEST_F(WakeEventTest, SignalsBeforeTheWaitEndItAtOnceTogether) {
  for (int i = 0; i < 3; ++i)
    event->signal();
  EXPECT_EQ(wait(500), 0);
  EXPECT_EQ(wait(500), 500);
}

// One during the wait ends it, and the next wait takes its time.
TEST_F(WakeEventTest, SignalDuringTheWaitEndsIt) {
  fake_libc::on_poll([this] { event->signal(); });
  EXPECT_EQ(wait(500), 0);
  fake_libc::on_poll(nullptr);
  EXPECT_EQ(wait(500), 500);
}

// It ends the wait before or during it, and stays readable: its byte is not taken.
TEST_F(WakeEventTest, ReadableDescriptorEndsTheWait) {
  fake_libc::on_poll([this] { make_readable(); });
  EXPECT_EQ(wait(500, ends[0]), 0);
  EXPECT_EQ(wait(500, ends[0]), 0);
  EXPECT_THAT(fake_libc::poll_limits_ms(), ElementsAre(500, 500));
  char byte = 0;
  EXPECT_EQ(read(ends[0], &byte, 1), 1);
}

// With a readable descriptor and a signal, the wait takes the signal away.
TEST_F(WakeEventTest, SignalBesideAReadableDescriptorIsTaken) {
  make_readable();
  event->signal();
  EXPECT_EQ(wait(500, ends[0]), 0);
  EXPECT_EQ(wait(500), 500);
}

// Its one descriptor is closed.
TEST_F(WakeEventTest, DestructorClosesItsDescriptor) {
  event.reset();
  EXPECT_THAT(fake_libc::closed_descriptors(), SizeIs(1));
}

// Without one "eventfd" goes to perror; waits take up to 100 ms, and a descriptor still ends them.
TEST_F(WakeEventTest, WithoutAnEventDescriptorWaitsAreShort) {
  fake_libc::fail_eventfd();
  event.emplace();
  EXPECT_THAT(fake_libc::perror_texts(), ElementsAre("eventfd"));
  event->signal();
  EXPECT_EQ(wait(60000), 100);
  EXPECT_EQ(wait(20), 20);
  make_readable();
  EXPECT_EQ(wait(60000, ends[0]), 0);
  fake_libc::closed_descriptors.clear();
  event.reset();
  EXPECT_THAT(fake_libc::closed_descriptors(), IsEmpty());
}

} // namespace
} // namespace vemk
