/* Runs a command and prints, as one JSON object, its wall time, the bytes it read (rchar and
 * read_bytes of /proc/PID/io, taken after it exited and before it is reaped) and its peak
 * resident memory. A small C program, so that the peak isn't that of a forked interpreter.
 * Standard output of the command is thrown away. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: runstat COMMAND [ARGS...]\n");
    return 2;
  }
  struct timespec start, end;
  clock_gettime(CLOCK_MONOTONIC, &start);
  pid_t pid = vfork();
  if (pid == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    execvp(argv[1], argv + 1);
    _exit(127);
  }
  siginfo_t info;
  waitid(P_PID, pid, &info, WEXITED | WNOWAIT);
  clock_gettime(CLOCK_MONOTONIC, &end);
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/io", pid);
  unsigned long long rchar = 0, readBytes = 0;
  FILE* io = fopen(path, "r");
  char line[128];
  while (io && fgets(line, sizeof(line), io)) {
    sscanf(line, "rchar: %llu", &rchar);
    sscanf(line, "read_bytes: %llu", &readBytes);
  }
  if (io) fclose(io);
  int status;
  struct rusage usage;
  wait4(pid, &status, 0, &usage);
  double seconds = (end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9;
  printf("{\"seconds\": %.6f, \"rchar\": %llu, \"read_bytes\": %llu, \"max_rss_kib\": %ld, "
         "\"exit\": %d}\n",
         seconds, rchar, readBytes, usage.ru_maxrss,
         WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  return 0;
}
