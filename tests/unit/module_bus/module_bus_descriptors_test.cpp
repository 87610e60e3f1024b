// A process that runs out of descriptors.

#include <sys/resource.h>
#include <unistd.h>

#include "bus_test_base.h"

namespace vemk {
namespace {

class descriptor_limit {
public:
  explicit descriptor_limit(rlim_t count) {
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit low{count, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
  }

  descriptor_limit(const descriptor_limit &) = delete;
  descriptor_limit &operator=(const descriptor_limit &) = delete;

  ~descriptor_limit() { setrlimit(RLIMIT_NOFILE, &before); }

private:
  rlimit before{};
};

class ModuleBusDescriptorsTest : public bus_test_base {};

// With any number of descriptors left the module joins or says that it cannot.
// The messaging library ended the process when it found none while it set itself up.
TEST_F(ModuleBusDescriptorsTest, AJoinWithoutDescriptorsFailsAndALaterOneSucceeds) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer needs descriptors to look at an exception that is caught";
#endif
  const int first_free = dup(STDERR_FILENO);
  close(first_free);
  int failed = 0;
  for (rlim_t left = 0; left < 30; ++left) {
    const descriptor_limit limit(static_cast<rlim_t>(first_free) + left);
    if (join() != 0)
      ++failed;
    leave();
  }
  EXPECT_GT(failed, 0);
  EXPECT_LT(failed, 30);
  EXPECT_EQ(join(), 0);
}

// With none or one left GetMsgDescriptor gives -1 and keeps none; with enough it succeeds later.
TEST_F(ModuleBusDescriptorsTest, WithoutDescriptorsThereIsNoneToWaitWith) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer needs descriptors to look at an exception that is caught";
#endif
  ASSERT_EQ(join(), 0);
  const std::size_t descriptors = open_descriptors();
  const int first_free = dup(STDERR_FILENO);
  close(first_free);
  for (const rlim_t left : {0, 1}) {
    const descriptor_limit limit(static_cast<rlim_t>(first_free) + left);
    EXPECT_EQ(GetMsgDescriptor(), -1) << left << " left";
  }
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_GE(GetMsgDescriptor(), 0);
}

// A sender and a listener are served on when the limit is lowered below what is open.
TEST_F(ModuleBusDescriptorsTest, ALimitBelowWhatIsOpenHoldsNobodyUp) {
  // A daemon whose limit is lowered keeps its place on the bus; poll() would refuse to wait then.
  ASSERT_EQ(join(), 0);
  bus_sender sender(folder, daemon_module);
  subscribed_listener listener(folder);
  ASSERT_TRUE(sender.send("before", in(soon)));
  EXPECT_EQ(next_payload(), "before");
  const descriptor_limit limit(4);
  ASSERT_TRUE(sender.send("up", in(soon)));
  EXPECT_EQ(next_payload(), "up");
  ASSERT_EQ(send("down"), 0);
  EXPECT_EQ(listener.receive(in(soon)), "down");
}

} // namespace
} // namespace vemk
