#include "monitor/Temperature.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "monitor/smc.h"
#include "platform/SystemRoots.h"
#include "testsupport/TestSupport.h"

namespace monitor {
namespace {

// A fixture sysfs with hardware monitors, installed as the system roots for one test.
class TemperatureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setSystemRoots({tmp_ / "proc", tmp_ / "sys"});
    SMCResetKeyInfoCache();
  }
  void TearDown() override {
    platform::setSystemRoots({});
    SMCResetKeyInfoCache();
  }

  // Adds hwmonN with driver `name`; `files` maps attribute names to contents.
  void monitor(int n, const std::string& name, std::map<std::string, std::string> files) {
    std::string dir = "sys/class/hwmon/hwmon" + std::to_string(n) + "/";
    tmp_.write(dir + "name", name + "\n");
    for (const auto& [file, content] : files) tmp_.write(dir + file, content + "\n");
  }

  float quietTemperature() {
    testing::internal::CaptureStdout();
    float t = GetCPUTemperature();
    testing::internal::GetCapturedStdout();
    return t;
  }

  testsupport::TempDir tmp_;
};

// Which sensor is the processor's: Intel's package, AMD's Tdie before Tctl; none otherwise.
TEST_F(TemperatureTest, TheProcessorsSensorByDriver) {
  using Files = std::map<std::string, std::string>;
  struct Row {
    const char* driver;
    Files files;
    float expected;
  };
  for (const Row& row : std::initializer_list<Row>{{"coretemp",
                                                    {{"temp1_input", "47500"},
                                                     {"temp1_label", "Package id 0"},
                                                     {"temp2_input", "44000"},
                                                     {"temp2_label", "Core 0"}},
                                                    47.5f},
                                                   {"k10temp",
                                                    {{"temp1_input", "60000"},
                                                     {"temp1_label", "Tctl"},
                                                     {"temp2_input", "50250"},
                                                     {"temp2_label", "Tdie"}},
                                                    50.25f},
                                                   {"k10temp",
                                                    {{"temp1_input", "61000"},
                                                     {"temp1_label", "Tctl"},
                                                     {"temp3_input", "55000"},
                                                     {"temp3_label", "Tccd1"}},
                                                    61.0f},
                                                   {"acpitz", {{"temp1_input", "27800"}}, -1.0f}}) {
    std::filesystem::remove_all(tmp_ / "sys");
    monitor(0, "acpitz", {{"temp1_input", "27800"}});
    monitor(1, row.driver, row.files);
    EXPECT_FLOAT_EQ(quietTemperature(), row.expected) << row.driver;
  }
  // Monitors without fans give an empty list, not none.
  auto fans = GetFans();
  ASSERT_TRUE(fans);
  EXPECT_TRUE(fans->empty());
}

TEST_F(TemperatureTest, NoSensorsGiveNoReadingAndNoFans) {
  testing::internal::CaptureStdout();
  EXPECT_FLOAT_EQ(GetCPUTemperature(), -1.0f);
  EXPECT_FALSE(GetFans());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: no SMC foundError: no SMC found");
  EXPECT_FLOAT_EQ(getSilliconCPUTemperature(), -1.0f);
  EXPECT_TRUE(SilliconTemperatureDictionary().empty());
}

TEST_F(TemperatureTest, FansAreReadByIndexCharacter) {
  // Eleven fans over two monitors: the eleventh is read through the keys "FAAc", "FAMn", "FAMx".
  std::map<std::string, std::string> first;
  for (int i = 1; i <= 6; ++i)
    first["fan" + std::to_string(i) + "_input"] = std::to_string(i * 100);
  std::map<std::string, std::string> second;
  for (int i = 1; i <= 5; ++i) {
    second["fan" + std::to_string(i) + "_input"] = std::to_string(1000 + i);
  }
  second["fan5_min"] = "300";
  second["fan5_max"] = "4800";
  monitor(0, "nct6775", first);
  monitor(2, "thinkpad", second);

  auto fans = GetFans();
  ASSERT_TRUE(fans);
  ASSERT_EQ(fans->size(), 11u);
  EXPECT_FLOAT_EQ((*fans)[0]->actualSpeed, 100.0f);
  EXPECT_FLOAT_EQ((*fans)[0]->minimumSpeed, -1.0f);  // no fan1_min
  EXPECT_FLOAT_EQ((*fans)[10]->actualSpeed, 1005.0f);
  EXPECT_FLOAT_EQ((*fans)[10]->minimumSpeed, 300.0f);
  EXPECT_FLOAT_EQ((*fans)[10]->maximumSpeed, 4800.0f);
  // No more than twenty.
  std::map<std::string, std::string> many;
  for (int i = 1; i <= 25; ++i) many["fan" + std::to_string(i) + "_input"] = "1200";
  monitor(3, "many", many);
  fans = GetFans();
  ASSERT_TRUE(fans);
  EXPECT_EQ(fans->size(), 20u);
}

TEST_F(TemperatureTest, ClusterSensorsGiveTheHottestReading) {
  monitor(0, "macsmc",
          {{"temp1_input", "41500"},
           {"temp1_label", "pACC MTR Temp Sensor0"},
           {"temp2_input", "39000"},
           {"temp2_label", "eACC MTR Temp Sensor1"},
           {"temp3_input", "80000"},
           {"temp3_label", "GPU MTR Temp Sensor"}});
  monitor(1, "acpitz", {{"temp1_input", "30000"}});
  auto readings = SilliconTemperatureDictionary();
  EXPECT_DOUBLE_EQ(readings.at("pACC MTR Temp Sensor0"), 41.5);
  EXPECT_DOUBLE_EQ(readings.at("acpitz temp1"), 30.0);
  EXPECT_FLOAT_EQ(getSilliconCPUTemperature(), 41.5f);
}

}  // namespace
}  // namespace monitor
