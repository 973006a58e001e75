#pragma once

// MD5 of several independent messages at once. MD5 is a chain: one message can't be digested
// faster than one block after another. But a search digests thousands of files, and the vector
// units of a processor can run the same chain for 8 or 16 messages side by side, one message
// per 32-bit lane. The digests are those of MD5_Update, byte for byte; only the speed differs.

// MD5_CTX is the legacy interface: a plain value, its chaining words in the open.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

#include <cstddef>

namespace dff {

// One message's share of a batch: `length` bytes at `data` to add to `context`.
struct Md5Lane {
  MD5_CTX* context;
  const unsigned char* data;
  std::size_t length;
};

// Adds each lane's bytes to its context, as MD5_Update(context, data, length) does. Whole
// 64-byte blocks of contexts that hold no partial block go through the vector units, as many
// messages at a time as they take; the rest through MD5_Update.
void md5UpdateMany(Md5Lane* lanes, std::size_t count);
// The same, `width` messages at a time: 1, 8 or 16, and no more than `md5LaneWidth()`.
void md5UpdateMany(Md5Lane* lanes, std::size_t count, std::size_t width);

// How many messages the vector path takes at a time on this processor: 16, 8, or 1 where
// there is no vector path (then `md5UpdateMany` is MD5_Update on each lane).
std::size_t md5LaneWidth();

}  // namespace dff
