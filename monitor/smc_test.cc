#include "monitor/smc.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/Smc.h"

namespace monitor {
namespace {

// Answers every key as a one-byte "ui8 " holding the key's last character, and counts calls.
class CountingService final : public platform::SmcService {
 public:
  explicit CountingService(int* calls) : calls_(calls) {}
  int callStructMethod(std::uint32_t selector, const void* input, std::size_t inputSize,
                       void* output, std::size_t outputSize) override {
    ++*calls_;
    if (selector != kSMCSelector || inputSize != 80 || outputSize != 80) return -1;
    SMCParamStruct request;
    std::memcpy(&request, input, sizeof(request));
    SMCParamStruct answer{};
    answer.key = request.key;
    if (request.command == kSMCReadKeyInfo) {
      answer.dataSize = 1;
      answer.dataType = ('u' << 24) | ('i' << 16) | ('8' << 8) | ' ';
    } else {
      answer.bytes[0] = static_cast<std::uint8_t>(request.key & 0xFF);
    }
    std::memcpy(output, &answer, sizeof(answer));
    return 0;
  }

 private:
  int* calls_;
};

class SMCTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SMCResetKeyInfoCache();
    platform::setSmcServiceSource(
        [this] { return platform::SmcLookup{std::make_unique<CountingService>(&calls_)}; });
    ASSERT_EQ(SMCOpen(), 0);
  }
  void TearDown() override {
    SMCClose();
    platform::setSmcServiceSource(nullptr);
    SMCResetKeyInfoCache();
  }
  int calls_ = 0;
};

// A key's information is asked once and cached, for the first hundred keys only.
TEST_F(SMCTest, KeyInformationIsCachedForAHundredKeys) {
  SMCVal_t value;
  ASSERT_EQ(SMCReadKey("FNum", &value), 0);
  EXPECT_EQ(calls_, 2);  // key information, then bytes
  EXPECT_STREQ(value.key, "FNum");
  EXPECT_STREQ(value.dataType, "ui8 ");
  EXPECT_EQ(value.dataSize, 1u);
  EXPECT_EQ(value.bytes[0], 'm');
  ASSERT_EQ(SMCReadKey("FNum", &value), 0);
  EXPECT_EQ(calls_, 3);

  SMCResetKeyInfoCache();
  char key[5];
  for (int i = 0; i < 100; ++i) {
    std::snprintf(key, sizeof(key), "K%03d", i);
    ASSERT_EQ(SMCReadKey(key, &value), 0);
  }
  EXPECT_EQ(SMCKeyInfoCacheCount(), 100);
  calls_ = 0;
  ASSERT_EQ(SMCReadKey("Z100", &value), 0);
  EXPECT_EQ(value.bytes[0], '0');
  EXPECT_EQ(SMCKeyInfoCacheCount(), 100);
  ASSERT_EQ(SMCReadKey("Z100", &value), 0);
  EXPECT_EQ(calls_, 4);  // both reads asked for key information
  calls_ = 0;
  ASSERT_EQ(SMCReadKey("K042", &value), 0);
  EXPECT_EQ(calls_, 1);  // earlier keys stay cached
}

TEST(SMCConversionTest, ValuesByTypeAndSize) {
  SMCVal_t value{};
  auto set = [&](const char* type, std::uint32_t size, std::initializer_list<std::uint8_t> bytes) {
    std::memset(&value, 0, sizeof(value));
    std::strcpy(value.dataType, type);
    value.dataSize = size;
    std::copy(bytes.begin(), bytes.end(), value.bytes);
  };
  set("fpe2", 2, {0x14, 0x82});
  EXPECT_FLOAT_EQ(SMCFloatFromVal(value), 1312.5f);
  set("ui16", 2, {0x0A, 0x0B});
  EXPECT_FLOAT_EQ(SMCFloatFromVal(value), 2571.0f);
  set("ui8 ", 1, {0xC8});
  EXPECT_FLOAT_EQ(SMCFloatFromVal(value), 200.0f);
  float f = 36.25f;
  set("flt ", 4, {});
  std::memcpy(value.bytes, &f, 4);
  EXPECT_FLOAT_EQ(SMCFloatFromVal(value), 36.25f);
  set("fpe2", 0, {0x14, 0x82});
  EXPECT_FLOAT_EQ(SMCFloatFromVal(value), -1.0f);
  set("fpe2", 1, {0x14});  // right type, wrong size
  EXPECT_FLOAT_EQ(SMCFloatFromVal(value), -1.0f);
  set("ui8", 1, {0x10});  // type compared whole, with its blank
  EXPECT_FLOAT_EQ(SMCFloatFromVal(value), -1.0f);
  set("sp78", 2, {0x2F, 0x80});
  EXPECT_FLOAT_EQ(SMCGetSP78(value), 47.5f);
  set("sp78", 2, {0xFF, 0x00});
  EXPECT_FLOAT_EQ(SMCGetSP78(value), 255.0f);  // read as unsigned
}

TEST(SMCConversionTest, IntegerAndKeyHelpers) {
  const std::uint8_t bytes[] = {0x01, 0x02, 0xFF};
  EXPECT_EQ(_strtoul(bytes, 2, 10), 0x0102u);
  EXPECT_EQ(_strtoul(bytes, 0, 10), 0u);
  EXPECT_EQ(_strtoul(bytes + 2, 1, 10), 0xFFu);
  EXPECT_EQ(_strtoul(bytes + 2, 1, 16), 0xFFFFFFFFu);  // base 16 reads bytes as signed
  // Records longer than four bytes keep the 32-bit sum of their last four; the sanitizers see
  // that no byte is shifted by 32 bits or more on the way.
  const std::uint8_t eight[] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
  const std::uint32_t expected[] = {0x11,       0x1122,     0x112233,   0x11223344,
                                    0x22334455, 0x33445566, 0x44556677, 0x55667788};
  for (int size = 1; size <= 8; ++size) {
    EXPECT_EQ(_strtoul(eight, size, 10), expected[size - 1]) << size;
  }
  char text[5];
  _ultostr(text, ('T' << 24) | ('C' << 16) | ('0' << 8) | 'P');
  EXPECT_STREQ(text, "TC0P");
  const std::uint8_t fixed[] = {0x00, 0x07};
  EXPECT_FLOAT_EQ(_strtof(fixed, 2, 2), 1.75f);
}

TEST(SMCOpenTest, NoControllerPrintsTheMessageAndGivesTheCode) {
  platform::setSmcServiceSource([] { return platform::SmcLookup{}; });
  testing::internal::CaptureStdout();
  EXPECT_EQ(SMCOpen(), static_cast<int>(0xE00002C0));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: no SMC found");

  platform::setSmcServiceSource([] { return platform::SmcLookup{nullptr, 0x1234, 0}; });
  testing::internal::CaptureStdout();
  EXPECT_EQ(SMCOpen(), 0x1234);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Error: IOServiceGetMatchingServices() = 00001234\n");

  platform::setSmcServiceSource([] { return platform::SmcLookup{nullptr, 0, 0x42}; });
  testing::internal::CaptureStdout();
  EXPECT_EQ(SMCOpen(), 0x42);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error: IOServiceOpen() = 00000042\n");
  platform::setSmcServiceSource(nullptr);

  // Reading without a connection fails cleanly.
  SMCVal_t value;
  EXPECT_NE(SMCReadKey("TC0P", &value), 0);
  EXPECT_EQ(value.dataSize, 0u);
}

}  // namespace
}  // namespace monitor
