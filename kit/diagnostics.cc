#include "kit/diagnostics.h"

#include <execinfo.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <unordered_map>

namespace {

std::mutex& logMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

LMLogSink& logSink() {
  static auto* sink = new LMLogSink;
  return *sink;
}

std::string& processName() {
  static auto* name = new std::string([] {
    std::string n = program_invocation_short_name ? program_invocation_short_name : "";
    return n.empty() ? std::string("lmreceipt") : n;
  }());
  return *name;
}

std::string logPrefix();

// Repeated entries on standard error (see lmLog); guarded by logMutex().
constexpr int kRepeatAllowance = 3;
constexpr auto kRepeatWindow = std::chrono::minutes(1);
constexpr size_t kRepeatTableSize = 1024;  // distinct entries remembered
constexpr long long kLogCheckInterval = 64 << 10;

struct Repeats {
  std::chrono::steady_clock::time_point windowStart;
  int count = 0;
  long long leftOut = 0;
};

struct StandardErrorLog {
  std::unordered_map<size_t, Repeats> repeats;  // by the entry's hash
  long long limit = 0;
  long long sinceCheck = 0;
};

StandardErrorLog& standardErrorLog() {
  static auto* log = new StandardErrorLog;
  return *log;
}

void writeLine(std::string line) {
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

// Empties standard error's file when it is beyond the limit. With logMutex() held.
void checkLogSize(StandardErrorLog& log) {
  log.sinceCheck = 0;
  struct stat st {};
  if (log.limit <= 0 || fstat(STDERR_FILENO, &st) != 0 || !S_ISREG(st.st_mode) ||
      st.st_size <= log.limit) {
    return;
  }
  if (ftruncate(STDERR_FILENO, 0) == 0) {
    // Opened for appending, writing goes on at the new end.
    writeLine(logPrefix() + "The log was emptied at " + std::to_string(st.st_size) + " bytes");
  }
}

std::string vformat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (size <= 0) return std::string();
  std::string out(static_cast<size_t>(size) + 1, '\0');
  std::vsnprintf(out.data(), out.size(), format, args);
  out.resize(static_cast<size_t>(size));
  return out;
}

std::string logPrefix() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis =
      duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[64];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char prefix[160];
  std::snprintf(prefix, sizeof prefix, "%s.%03d %s[%d:%ld] ", stamp,
                static_cast<int>(millis), processName().c_str(),
                static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)));
  return prefix;
}

}  // namespace

void lmLog(std::string_view message) {
  std::string line = logPrefix();
  line.append(message);
  std::lock_guard<std::mutex> lock(logMutex());
  if (logSink()) {
    logSink()(line);
    return;
  }
  StandardErrorLog& log = standardErrorLog();
  const auto now = std::chrono::steady_clock::now();
  if (log.repeats.size() >= kRepeatTableSize) log.repeats.clear();
  Repeats& repeats = log.repeats[std::hash<std::string_view>()(message)];
  if (repeats.count == 0 || now - repeats.windowStart >= kRepeatWindow) {
    if (repeats.leftOut > 0) {
      writeLine(logPrefix() + std::to_string(repeats.leftOut) +
                " repeats of the next entry were left out in the last minute");
    }
    repeats = Repeats{now, 0, 0};
  }
  if (++repeats.count > kRepeatAllowance) {
    ++repeats.leftOut;
    return;
  }
  log.sinceCheck += static_cast<long long>(line.size()) + 1;
  writeLine(std::move(line));
  if (log.limit > 0 && log.sinceCheck >= kLogCheckInterval) checkLogSize(log);
}

void lmLimitLogFile(long long bytes) {
  std::lock_guard<std::mutex> lock(logMutex());
  standardErrorLog().limit = bytes;
  checkLogSize(standardErrorLog());
}

void lmLogf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string message = vformat(format, args);
  va_end(args);
  lmLog(message);
}

void lmSetLogSink(LMLogSink sink) {
  std::lock_guard<std::mutex> lock(logMutex());
  logSink() = std::move(sink);
}

void lmSetProcessName(std::string name) {
  std::lock_guard<std::mutex> lock(logMutex());
  processName() = std::move(name);
}

std::string lmCallStackSymbols() {
  void* frames[64];
  const int count = backtrace(frames, 64);
  std::string out = "(\n";
  char** symbols = backtrace_symbols(frames, count);
  // Frame 0 is this function itself.
  for (int i = 1; i < count; ++i) {
    out += "    \"";
    out += symbols ? symbols[i] : "?";
    out += i + 1 < count ? "\",\n" : "\"\n";
  }
  std::free(symbols);
  out += ")";
  return out;
}

namespace lm_detail {

std::string assertionMessage() { return "Assertion"; }

std::string assertionMessage(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string message = vformat(format, args);
  va_end(args);
  return message;
}

void assertionFailed(const std::string& message, const char* file, int line,
                     const char* function, const char* condition) {
  std::string_view path(file);
  const size_t slash = path.find_last_of('/');
  if (slash != std::string_view::npos) path.remove_prefix(slash + 1);
  std::string entry = message;
  entry += " <";
  entry.append(path);
  entry += ":" + std::to_string(line) + "> ";
  entry += function;
  entry += "\n\n    ";
  entry += condition;
  entry += " failed assertion\n\n";
  entry += lmCallStackSymbols();
  lmLog(entry);
}

}  // namespace lm_detail

double lmAbsoluteTimeNow() {
  using namespace std::chrono;
  constexpr double kSecondsFrom1970To2001 = 978307200.0;
  return duration<double>(system_clock::now().time_since_epoch()).count() -
         kSecondsFrom1970To2001;
}

void lxTimeTrack(const char* name, const char* message) {
  struct Timer {
    double start;
    double step;
  };
  static auto* mutex = new std::mutex;
  static auto* timers = new std::map<std::string, Timer>;
  const double now = lmAbsoluteTimeNow();
  const std::string key = name ? name : "main";
  double sinceStep;
  double sinceStart;
  {
    std::lock_guard<std::mutex> lock(*mutex);
    auto it = timers->find(key);
    if (message == nullptr || it == timers->end()) {
      it = timers->insert_or_assign(key, Timer{now, now}).first;
    }
    sinceStep = now - it->second.step;
    sinceStart = now - it->second.start;
    it->second.step = now;
  }
  // A null name prints as "(null)", not as the timer it uses.
  lmLogf("Time <%s> [%.4fs of %.4fs] %s", name ? name : "(null)", sinceStep,
         sinceStart, message ? message : "");
}
