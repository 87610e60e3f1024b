#include <iterator>
#include <new>
#include <stdexcept>

#include "fakes/fake_memory.h"
#include "unit/timers/timers_fixture.h"

namespace vemk {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TimerServiceTest : public TimersFixture {};

} // namespace

// run_expired reads the clock once and neither sleeps nor selects.
TEST_F(TimerServiceTest, EmptyListOnlyChecksTheClock) {
  const int before = fake_libc::clock_reads();
  service->run_expired();
  EXPECT_EQ(before + 1, fake_libc::clock_reads());
  EXPECT_THAT(fake_libc::sleeps_us(), IsEmpty());
  EXPECT_THAT(fake_libc::select_timeouts_us(), IsEmpty());
}

// Added at 1005 with delay 3 a timer fires at 1008, or at the next run after it, and never again.
TEST_F(TimerServiceTest, TimerFiresInItsSecondAndOnlyOnce) {
  fake_libc::advance_seconds(5);
  service->add_timer(record("a"), 0, 3);
  EXPECT_THAT(run(), IsEmpty());
  EXPECT_THAT(run_after(2), IsEmpty());
  EXPECT_THAT(run_after(1), ElementsAre("a"));
  EXPECT_THAT(run(), IsEmpty());
  EXPECT_THAT(run_after(3), IsEmpty());
  service->add_timer(record("late"), 0, 3);
  EXPECT_THAT(run_after(9), ElementsAre("late"));
}

// Delays -5 and 0 fire in the same second, in this order, and not before the run.
TEST_F(TimerServiceTest, DelayZeroIsDueInTheSameSecondAndANegativeOneOverdue) {
  service->add_timer(record("now"), 0, 0);
  service->add_timer(record("overdue"), 0, -5);
  EXPECT_THAT(fired, IsEmpty());
  EXPECT_THAT(run(), ElementsAre("overdue", "now"));
  service->add_timer(record("due"), 0, 0);
  fake_libc::advance_seconds(1);
  service->add_timer(record("other"), 0, 0);
  EXPECT_THAT(fired, ElementsAre("overdue", "now"));
}

// Added as 4, 2, 3, 1 seconds they fire as 1, 2, 3 at 1003 and 4 at 1004.
TEST_F(TimerServiceTest, TimersFireInTheOrderOfTheirExpiries) {
  service->add_timer(record("4"), 0, 4);
  service->add_timer(record("2"), 0, 2);
  service->add_timer(record("3"), 0, 3);
  service->add_timer(record("1"), 0, 1);
  EXPECT_THAT(run_after(3), ElementsAre("1", "2", "3"));
  EXPECT_THAT(run_after(1), ElementsAre("4"));
}

// Three timers of one second fire as added, whatever their ids, delays and those between them.
TEST_F(TimerServiceTest, EqualExpiriesFireInInsertionOrder) {
  service->add_timer(record("a"), 0, 2);
  service->add_timer(record("later"), 0, 3);
  service->add_timer(record("b"), 1, 2);
  service->add_timer(record("earlier"), 0, 1);
  fake_libc::advance_seconds(1);
  service->add_timer(record("c"), 0, 1);
  EXPECT_THAT(run_after(2), ElementsAre("earlier", "a", "b", "c", "later"));
}

// It points at the entry with its id, callback and expiry, behind those of the same second.
TEST_F(TimerServiceTest, PositionOfTheNewEntryIsReturned) {
  const auto late = service->add_timer(record("late"), 7, 60);
  const auto early = service->add_timer(record("early"), 4294967295u, 2);
  const auto equal = service->add_timer(record("equal"), 8, 2);
  EXPECT_EQ(7u, late->id);
  EXPECT_EQ(1060, late->expiry);
  EXPECT_EQ(4294967295u, early->id);
  EXPECT_EQ(1002, early->expiry);
  EXPECT_EQ(equal, std::next(early));
  EXPECT_EQ(late, std::next(equal));
  early->callback();
  EXPECT_THAT(fired, ElementsAre("early"));
}

// 1000 + 2147482647 is 2147483647, and one more is -2147483648, which is due at once.
TEST_F(TimerServiceTest, ExpiryIsASigned32BitSecond) {
  EXPECT_EQ(2147483647, service->add_timer(record("last"), 0, 2147483647 - 1000)->expiry);
  EXPECT_EQ(-2147483647 - 1, service->add_timer(record("wraps"), 0, 2147483647 - 999)->expiry);
  EXPECT_THAT(run(), ElementsAre("wraps"));
}

// Of six timers cancel_timers(0) removes the four with id 0; an unknown id changes nothing.
TEST_F(TimerServiceTest, CancellingRemovesEveryTimerOfItsIdAndNoOther) {
  service->cancel_timers(0);
  service->add_timer(record("zero 1"), 0, 1);
  service->add_timer(record("one"), 1, 1);
  service->add_timer(record("zero 2"), 0, 2);
  service->add_timer(record("zero 3"), 0, 2);
  service->add_timer(record("two"), 2, 2);
  service->add_timer(record("zero 4"), 0, 3);
  for (const std::uint32_t id : {0u, 0u, 4294967295u})
    service->cancel_timers(id);
  EXPECT_THAT(run_after(3), ElementsAre("one", "two"));
}

// cancel_timers drops a due timer unfired and without a clock reading.
TEST_F(TimerServiceTest, CancellingNeitherReadsTheClockNorFires) {
  service->add_timer(record("due"), 0, 0);
  const int before = fake_libc::clock_reads();
  service->cancel_timers(0);
  EXPECT_EQ(before, fake_libc::clock_reads());
  EXPECT_THAT(fired, IsEmpty());
}

// Each timer holds a copy of its callback until it has fired, is cancelled, or the service goes.
TEST_F(TimerServiceTest, CallbackIsCopiedAndReleasedWithItsTimer) {
  const auto token = std::make_shared<int>();
  {
    const std::function<void()> callback = [this, token] { fired.push_back("fired"); };
    for (const std::uint32_t id : {0u, 0u, 1u, 2u})
      service->add_timer(callback, id, id == 1 ? 0 : 60);
  }
  EXPECT_EQ(5, token.use_count());
  service->cancel_timers(0);
  EXPECT_EQ(3, token.use_count());
  EXPECT_THAT(run(), ElementsAre("fired"));
  EXPECT_EQ(2, token.use_count());
  service->add_timer([this, token] { fired.push_back("due"); }, 0, 0);
  service.reset();
  EXPECT_EQ(1, token.use_count());
  EXPECT_THAT(fired, ElementsAre("fired"));
}

// One that cancels its id and adds itself with delay 2 fires at 1002 and at 1004.
TEST_F(TimerServiceTest, CallbackMayRearmItself) {
  std::function<void()> again = [&] {
    fired.push_back("again");
    service->cancel_timers(0);
    service->add_timer(again, 0, 2);
  };
  service->add_timer(again, 0, 2);
  EXPECT_THAT(run_after(2), ElementsAre("again"));
  EXPECT_THAT(run_after(1), IsEmpty());
  EXPECT_THAT(run_after(1), ElementsAre("again"));
}

// cancel_timers(0) in a callback takes the timer of the same second and the later one of id 0.
// Its own entry is gone before a callback runs, so cancelling finds only the others.
TEST_F(TimerServiceTest, CallbackMayCancelEverything) {
  service->add_timer(
      [this] {
        fired.push_back("cancels");
        service->cancel_timers(0);
      },
      0, 1);
  service->add_timer(record("same second"), 0, 1);
  service->add_timer(record("other id"), 1, 1);
  service->add_timer(record("later"), 0, 2);
  EXPECT_THAT(run_after(1), ElementsAre("cancels", "other id"));
  EXPECT_THAT(run_after(1), IsEmpty());
}

// Five due timers behind it are cancelled in its callback; the sixth still fires.
TEST_F(TimerServiceTest, CallbackMayCancelSeveralTimersThatFollowIt) {
  service->add_timer([this] { service->cancel_timers(7); }, 0, 0);
  for (int i = 0; i < 5; ++i)
    service->add_timer(record("cancelled"), 7, 0);
  service->add_timer(record("last"), 0, 0);
  EXPECT_THAT(run(), ElementsAre("last"));
}

// One added with delay 0 while another due one waits lands behind that, and both fire.
TEST_F(TimerServiceTest, TimerAddedBehindTheWalksNextEntryFiresInTheSameRun) {
  service->add_timer([this] { service->add_timer(record("added"), 0, 0); }, 0, 0);
  service->add_timer(record("next"), 0, 0);
  EXPECT_THAT(run(), ElementsAre("next", "added"));
}

// One added with delay 0 before a timer in 60 s is passed over by this run.
TEST_F(TimerServiceTest, TimerAddedInFrontOfTheWalksNextEntryWaitsForTheNextRun) {
  service->add_timer([this] { service->add_timer(record("added"), 0, 0); }, 0, 0);
  service->add_timer(record("not due"), 0, 60);
  EXPECT_THAT(run(), IsEmpty());
  EXPECT_THAT(run(), ElementsAre("added"));
}

// With delay 0 and nothing behind it, it fires once a run.
TEST_F(TimerServiceTest, TimerThatRearmsItselfWithoutDelayDoesNotHoldTheRun) {
  std::function<void()> again = [&] {
    fired.push_back("again");
    service->add_timer(again, 0, 0);
  };
  service->add_timer(again, 0, 0);
  EXPECT_THAT(run(), ElementsAre("again"));
  EXPECT_THAT(run(), ElementsAre("again"));
}

// A timer that becomes due while a callback takes 5 seconds fires in the next run.
TEST_F(TimerServiceTest, RunGoesByTheSecondAtWhichItBegan) {
  service->add_timer([] { fake_libc::advance_seconds(5); }, 0, 0);
  service->add_timer(record("due meanwhile"), 0, 3);
  EXPECT_THAT(run(), IsEmpty());
  EXPECT_THAT(run(), ElementsAre("due meanwhile"));
}

// Adding it is silent; due, it throws std::bad_function_call once, and the next run goes on.
TEST_F(TimerServiceTest, EmptyCallbackThrowsWhenDueAndAfterItsRemoval) {
  service->add_timer(record("before"), 0, 1);
  service->add_timer(nullptr, 0, 1);
  service->add_timer(record("after"), 0, 1);
  service->run_expired();
  fake_libc::advance_seconds(1);
  EXPECT_THROW(service->run_expired(), std::bad_function_call);
  EXPECT_THAT(fired, ElementsAre("before"));
  EXPECT_THAT(run(), ElementsAre("after"));
}

// It leaves run_expired; its timer is gone, the others pending: one is cancelled, "b" and "c" fire.
// The walk that an exception ended must leave nothing behind that a later cancelling could trip on.
TEST_F(TimerServiceTest, ExceptionOfACallbackLeavesTheOthersForTheNextRun) {
  service->add_timer([] { throw std::runtime_error("callback"); }, 0, 0);
  service->add_timer(record("a"), 1, 0);
  service->add_timer(record("b"), 0, 0);
  EXPECT_THROW(service->run_expired(), std::runtime_error);
  service->cancel_timers(1);
  service->add_timer(record("c"), 1, 0);
  EXPECT_THAT(run(), ElementsAre("b", "c"));
}

// add_timer throws std::bad_alloc, and the timer from before fires alone.
TEST_F(TimerServiceTest, NoMemoryForAnEntryThrowsAndLeavesTheListAsItWas) {
  service->add_timer(record("a"), 0, 1);
  const std::function<void()> callback = record("b");
  {
    const fake_memory::refused_new refused;
    EXPECT_THROW(service->add_timer(callback, 0, 1), std::bad_alloc);
  }
  EXPECT_THAT(run_after(1), ElementsAre("a"));
}

// Cancelling and running in one leaves the other one's timer of the same id.
TEST_F(TimerServiceTest, TwoServicesShareNothing) {
  timer_service other;
  other.add_timer(record("other"), 0, 0);
  service->cancel_timers(0);
  EXPECT_THAT(run(), IsEmpty());
  other.run_expired();
  EXPECT_THAT(fired, ElementsAre("other"));
}

} // namespace vemk
