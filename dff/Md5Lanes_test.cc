#include "dff/Md5Lanes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testsupport/TestSupport.h"

namespace dff {
namespace {

std::string digest(MD5_CTX context) {
  unsigned char out[MD5_DIGEST_LENGTH];
  MD5_Final(out, &context);
  return std::string(reinterpret_cast<char*>(out), sizeof(out));
}

// Messages of every length around the block size and well past it, some started already (a
// partial block held, or whole blocks counted), in batches of every size up to three times
// the lane width: each digest is MD5_Update's, and a context goes on correctly afterwards.
TEST(Md5LanesTest, EveryLaneGivesWhatMD5UpdateGives) {
  std::vector<std::size_t> lengths;
  for (std::size_t n = 0; n <= 130; ++n) lengths.push_back(n);
  for (std::size_t n : {255u, 256u, 4095u, 4096u, 4097u, 10000u, 65536u + 17}) lengths.push_back(n);
  for (std::size_t width : {std::size_t{1}, std::size_t{8}, std::size_t{16}}) {
    if (width > md5LaneWidth()) continue;
    for (std::size_t batch = 1; batch <= 3 * width + 1 && batch <= lengths.size(); ++batch) {
      for (std::size_t first = 0; first + batch <= lengths.size(); first += batch) {
        std::vector<std::string> messages;
        std::vector<MD5_CTX> ours(batch), theirs(batch);
        std::vector<Md5Lane> lanes;
        for (std::size_t i = 0; i < batch; ++i) {
          const std::size_t length = lengths[first + i];
          messages.push_back(testsupport::randomBytes(length, static_cast<unsigned>(first + i)));
          MD5_Init(&ours[i]);
          MD5_Init(&theirs[i]);
          // A third start mid-stream: a whole block, or (for every seventh) a partial one.
          if (i % 3 == 1) {
            const std::string before = testsupport::randomBytes(i % 7 == 0 ? 13 : 64, 99);
            MD5_Update(&ours[i], before.data(), before.size());
            MD5_Update(&theirs[i], before.data(), before.size());
          }
        }
        for (std::size_t i = 0; i < batch; ++i) {
          lanes.push_back({&ours[i], reinterpret_cast<const unsigned char*>(messages[i].data()),
                           messages[i].size()});
          MD5_Update(&theirs[i], messages[i].data(), messages[i].size());
        }
        md5UpdateMany(lanes.data(), lanes.size(), width);
        for (std::size_t i = 0; i < batch; ++i) {
          ASSERT_EQ(digest(ours[i]), digest(theirs[i]))
              << "length " << messages[i].size() << " in a batch of " << batch << " by " << width;
          MD5_Update(&ours[i], "tail", 4);
          MD5_Update(&theirs[i], "tail", 4);
          ASSERT_EQ(digest(ours[i]), digest(theirs[i])) << "going on after " << messages[i].size();
        }
      }
    }
  }
}

}  // namespace
}  // namespace dff
