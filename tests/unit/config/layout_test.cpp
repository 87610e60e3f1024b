// How the configuration record lies in memory: the same on every processor.

#include "config/websock_cfg.h"

#include <cstddef>
#include <type_traits>

#include <gtest/gtest.h>

namespace vemk {
namespace {

// Location, host and path of 256 bytes, port to event_pacing: 796 bytes in all.
TEST(ConfigLayoutTest, FieldsFollowOneAnotherInTheirOrder) {
  ASSERT_TRUE(std::is_standard_layout<websock_cfg_t>::value);
  EXPECT_EQ(offsetof(websock_cfg_t, ap_location), 0u);
  EXPECT_EQ(offsetof(websock_cfg_t, host), 256u);
  EXPECT_EQ(offsetof(websock_cfg_t, path), 512u);
  EXPECT_EQ(offsetof(websock_cfg_t, port), 768u);
  EXPECT_EQ(offsetof(websock_cfg_t, url_valid), 772u);
  EXPECT_EQ(offsetof(websock_cfg_t, initial_connection_delay), 776u);
  EXPECT_EQ(offsetof(websock_cfg_t, max_connection_delay), 780u);
  EXPECT_EQ(offsetof(websock_cfg_t, log_level), 784u);
  EXPECT_EQ(offsetof(websock_cfg_t, cfg_mode), 788u);
  EXPECT_EQ(offsetof(websock_cfg_t, cfg_file_failed), 792u);
  EXPECT_EQ(offsetof(websock_cfg_t, whole_messages), 793u);
  EXPECT_EQ(offsetof(websock_cfg_t, event_pacing), 794u);
  EXPECT_EQ(sizeof(websock_cfg_t), 796u);
}

} // namespace
} // namespace vemk
