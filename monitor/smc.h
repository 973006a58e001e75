#pragma once

// A small client of the system management controller: it opens the controller's service,
// exchanges 80-byte parameter records with it, caches key information and turns answers into
// numbers.
//
// Process-wide state (`g_conn`, `g_keyInfoCache`) is plain data without a lock: call these
// functions from one thread at a time.

#include <cstddef>
#include <cstdint>

namespace platform {
class SmcService;
}

namespace monitor {

using kern_return_t = int;
using SMCConnection = platform::SmcService*;

// The parameter record, in the machine's byte order, the same layout for request and answer.
struct SMCParamStruct {
  std::uint32_t key;
  std::uint8_t unused1[24];
  std::uint32_t dataSize;
  std::uint32_t dataType;
  std::uint32_t dataAttributes;
  std::uint8_t unused2[2];
  std::uint8_t command;
  std::uint8_t unused3[5];
  std::uint8_t bytes[32];
};
static_assert(sizeof(SMCParamStruct) == 80);

// The key information of one key.
struct SMCKeyInfo {
  std::uint32_t dataSize;
  std::uint32_t dataType;
  std::uint32_t dataAttributes;
};

// A value as this client hands it out.
struct SMCVal_t {
  char key[5];
  std::uint32_t dataSize;
  char dataType[5];
  std::uint8_t bytes[32];
};

inline constexpr std::uint32_t kSMCSelector = 2;
inline constexpr std::uint8_t kSMCReadKeyInfo = 9;
inline constexpr std::uint8_t kSMCReadBytes = 5;
inline constexpr int kSMCKeyInfoCacheSize = 100;

// Opens the controller into `g_conn`. Gives 0, or prints one of three messages on standard
// output and gives the code: the lookup failed, there is no controller ("Error: no SMC found",
// 0xE00002C0), or it couldn't be opened.
kern_return_t SMCOpen();
// Closes `g_conn`.
kern_return_t SMCClose();

kern_return_t SMCCall2(std::uint32_t selector, SMCParamStruct* input, SMCParamStruct* output,
                       SMCConnection connection);
// Key information, from the cache when the key was seen before.
kern_return_t SMCGetKeyInfo(std::uint32_t key, SMCKeyInfo* info, SMCConnection connection);
kern_return_t SMCReadKey2(const char* key, SMCVal_t* value, SMCConnection connection);
kern_return_t SMCReadKey(const char* key, SMCVal_t* value);

float SMCFloatFromVal(const SMCVal_t& value);
float SMCGetSP78(const SMCVal_t& value);

std::uint32_t _strtoul(const std::uint8_t* bytes, int size, int base);
void _ultostr(char* text, std::uint32_t number);
float _strtof(const std::uint8_t* bytes, int size, int fractionBits);

// The number of key-information entries cached so far (0 to 100).
int SMCKeyInfoCacheCount();
// Empties the key-information cache (tests use it between cases).
void SMCResetKeyInfoCache();

}  // namespace monitor
