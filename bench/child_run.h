// Runs a program in a child process and measures it as a user would see it:
// wall time, the child's processor time and its peak resident memory (as
// the kernel reports them), and the bytes it writes to standard output,
// read through a pipe and counted, not kept.
#pragma once
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

struct LMChildRun {
  double seconds = 0;     // wall time from start to exit
  double cpuSeconds = 0;  // user and system time of the child
  long peakKiB = 0;
  uint64_t outputBytes = 0;
  int status = -1;  // as waitpid reports it; 0 for a clean exit
};

// Runs `args` (args[0] a path); standard error goes where ours goes.
inline LMChildRun lmRunChild(const std::vector<std::string>& args) {
  LMChildRun run;
  int fds[2];
  if (pipe(fds) != 0) return run;
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(fds[1]);
  std::vector<char> buffer(1 << 16);
  for (ssize_t n; (n = read(fds[0], buffer.data(), buffer.size())) != 0;) {
    if (n > 0) run.outputBytes += static_cast<uint64_t>(n);
    if (n < 0 && errno != EINTR) break;
  }
  close(fds[0]);
  struct rusage usage {};
  int status = 0;
  if (pid > 0) wait4(pid, &status, 0, &usage);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                   static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  run.peakKiB = usage.ru_maxrss;
  run.status = pid > 0 ? status : -1;
  return run;
}
