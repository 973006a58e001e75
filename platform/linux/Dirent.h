#pragma once

// One record of what getdents64 returns: folders are listed with it directly, a buffer at a
// time, without the C library's per-entry calls.

#include <sys/types.h>

namespace platform {

struct LinuxDirent64 {
  ino64_t d_ino;
  off64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[];
};

}  // namespace platform
