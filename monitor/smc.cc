#include "monitor/smc.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/Smc.h"

namespace monitor {

namespace {

struct KeyInfoCacheEntry {
  std::uint32_t key;
  SMCKeyInfo info;
};
static_assert(sizeof(KeyInfoCacheEntry) == 16);

std::unique_ptr<platform::SmcService> g_service;
SMCConnection g_conn = nullptr;
KeyInfoCacheEntry g_keyInfoCache[kSMCKeyInfoCacheSize];
int g_keyInfoCacheCount = 0;

}  // namespace

kern_return_t SMCOpen() {
  platform::SmcLookup lookup = platform::findSmcService();
  if (lookup.matchingError != 0) {
    std::printf("Error: IOServiceGetMatchingServices() = %08x\n",
                static_cast<unsigned>(lookup.matchingError));
    return lookup.matchingError;
  }
  if (lookup.openError != 0) {
    std::printf("Error: IOServiceOpen() = %08x\n", static_cast<unsigned>(lookup.openError));
    return lookup.openError;
  }
  if (!lookup.service) {
    std::printf("Error: no SMC found");
    return platform::kSmcNoDevice;
  }
  g_service = std::move(lookup.service);
  g_conn = g_service.get();
  return 0;
}

kern_return_t SMCClose() {
  if (g_conn == nullptr) return platform::kSmcNotOpen;
  g_conn = nullptr;
  g_service.reset();
  return 0;
}

kern_return_t SMCCall2(std::uint32_t selector, SMCParamStruct* input, SMCParamStruct* output,
                       SMCConnection connection) {
  if (connection == nullptr) return platform::kSmcNotOpen;
  return connection->callStructMethod(selector, input, sizeof(SMCParamStruct), output,
                                      sizeof(SMCParamStruct));
}

kern_return_t SMCGetKeyInfo(std::uint32_t key, SMCKeyInfo* info, SMCConnection connection) {
  for (int i = 0; i < g_keyInfoCacheCount; ++i) {
    if (g_keyInfoCache[i].key == key) {
      *info = g_keyInfoCache[i].info;
      return 0;
    }
  }
  SMCParamStruct input;
  SMCParamStruct output;
  std::memset(&input, 0, sizeof(input));
  std::memset(&output, 0, sizeof(output));
  input.key = key;
  input.command = kSMCReadKeyInfo;
  kern_return_t result = SMCCall2(kSMCSelector, &input, &output, connection);
  if (result != 0) return result;

  info->dataSize = output.dataSize;
  info->dataType = output.dataType;
  info->dataAttributes = output.dataAttributes;
  // A full cache keeps what it has; later keys are asked of the service every time.
  if (g_keyInfoCacheCount < kSMCKeyInfoCacheSize) {
    g_keyInfoCache[g_keyInfoCacheCount].key = key;
    g_keyInfoCache[g_keyInfoCacheCount].info = *info;
    ++g_keyInfoCacheCount;
  }
  return 0;
}

kern_return_t SMCReadKey2(const char* key, SMCVal_t* value, SMCConnection connection) {
  SMCParamStruct input;
  SMCParamStruct output;
  std::memset(&input, 0, sizeof(input));
  std::memset(&output, 0, sizeof(output));
  std::memset(value, 0, sizeof(*value));

  std::uint32_t number = _strtoul(reinterpret_cast<const std::uint8_t*>(key), 4, 16);
  std::strncpy(value->key, key, sizeof(value->key));
  value->key[4] = '\0';

  SMCKeyInfo info;
  kern_return_t result = SMCGetKeyInfo(number, &info, connection);
  if (result != 0) return result;
  value->dataSize = info.dataSize;
  _ultostr(value->dataType, info.dataType);

  input.key = number;
  input.dataSize = info.dataSize;
  input.command = kSMCReadBytes;
  result = SMCCall2(kSMCSelector, &input, &output, connection);
  if (result != 0) return result;
  std::memcpy(value->bytes, output.bytes, sizeof(value->bytes));
  return 0;
}

kern_return_t SMCReadKey(const char* key, SMCVal_t* value) {
  return SMCReadKey2(key, value, g_conn);
}

std::uint32_t _strtoul(const std::uint8_t* bytes, int size, int base) {
  std::uint32_t total = 0;
  for (int i = 0; i < size; ++i) {
    // Base 16 reads each byte as signed, any other base as unsigned; the sum wraps at 32 bits.
    std::uint32_t byte =
        base == 16 ? static_cast<std::uint32_t>(static_cast<std::int8_t>(bytes[i])) : bytes[i];
    // A byte shifted by 32 bits or more leaves nothing in a 32-bit sum; shifting that far would
    // be undefined, so such bytes are skipped.
    const int shift = 8 * (size - i - 1);
    if (shift >= 32) continue;
    total += byte << shift;
  }
  return total;
}

void _ultostr(char* text, std::uint32_t number) {
  text[0] = '\0';
  std::snprintf(text, 5, "%c%c%c%c", static_cast<unsigned>(number >> 24) & 0xFF,
                static_cast<unsigned>(number >> 16) & 0xFF,
                static_cast<unsigned>(number >> 8) & 0xFF, static_cast<unsigned>(number) & 0xFF);
}

float _strtof(const std::uint8_t* bytes, int size, int fractionBits) {
  float total = 0;
  for (int i = 0; i < size; ++i) {
    if (i == size - 1) {
      total += bytes[i] >> fractionBits;
    } else {
      total += static_cast<float>(bytes[i] << ((size - 1 - i) * (8 - fractionBits)));
    }
  }
  return total + (bytes[size - 1] & 0x03) * 0.25f;
}

float SMCFloatFromVal(const SMCVal_t& value) {
  if (value.dataSize == 0) return -1.0f;
  if (std::strcmp(value.dataType, "flt ") == 0 && value.dataSize == 4) {
    float number;
    std::memcpy(&number, value.bytes, sizeof(number));
    return number;
  }
  if (std::strcmp(value.dataType, "fpe2") == 0 && value.dataSize == 2) {
    return _strtof(value.bytes, 2, 2);
  }
  if (std::strcmp(value.dataType, "ui16") == 0 && value.dataSize == 2) {
    return static_cast<float>((value.bytes[0] << 8) | value.bytes[1]);
  }
  if (std::strcmp(value.dataType, "ui8 ") == 0 && value.dataSize == 1) {
    return static_cast<float>(value.bytes[0]);
  }
  return -1.0f;
}

float SMCGetSP78(const SMCVal_t& value) {
  unsigned raw = (static_cast<unsigned>(value.bytes[0]) << 8) | value.bytes[1];
  return static_cast<float>(raw * 0.00390625);
}

int SMCKeyInfoCacheCount() { return g_keyInfoCacheCount; }

void SMCResetKeyInfoCache() { g_keyInfoCacheCount = 0; }

}  // namespace monitor
