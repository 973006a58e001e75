#include "platform/Analytics.h"

#include <gtest/gtest.h>

#include "testsupport/TestSupport.h"

namespace platform {
namespace {

TEST(AnalyticsTest, RecordsThroughTheInstalledRecorderOnly) {
  analytics().recordEvent(1);  // the default does nothing and must not crash
  {
    testsupport::ScopedAnalyticsRecorder scoped;
    analytics().recordEvent(37);
    analytics().recordEvent(72, {{"reason", "timeout"}});
    auto events = scoped.recorder().events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].number, 37);
    EXPECT_FALSE(events[0].properties);
    EXPECT_EQ(events[1].properties->at("reason"), "timeout");
  }
  analytics().recordEvent(45);  // back to doing nothing
}

}  // namespace
}  // namespace platform
