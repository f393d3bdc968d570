// The log, the soft assertion and a named stopwatch.
//
// All three write single entries through lmLog, which prefixes the line with
// "date time process[pid:tid] " and writes it to standard error. Nothing here
// throws or ends the program.
#pragma once
#include <functional>
#include <string>
#include <string_view>

// Writes one log entry. Thread-safe: entries never interleave.
//
// On standard error an entry repeated word for word (a soft assertion in a
// loop, the same warning for every call) is written at most three times a
// minute; the next one written after that minute first says how many were
// left out. Entries that go to a sink are never left out.
void lmLog(std::string_view message);
// printf-style form of lmLog.
void lmLogf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Replaces where entries go (the whole prefixed line is passed, without the
// trailing newline); an empty function restores standard error. For tests.
using LMLogSink = std::function<void(std::string_view line)>;
void lmSetLogSink(LMLogSink sink);

// Bounds the log when standard error is a regular file: the file is emptied
// when it has grown beyond `bytes`, at once and whenever writing finds it
// beyond (checked every 64 KiB written), and an entry says so. 0: no bound.
void lmLimitLogFile(long long bytes);

// The name the log prints for this process (default: the executable's name).
void lmSetProcessName(std::string name);

// The current thread's call stack, one symbol line per frame, innermost first.
std::string lmCallStackSymbols();

namespace lm_detail {
std::string assertionMessage();
std::string assertionMessage(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
void assertionFailed(const std::string& message, const char* file, int line,
                     const char* function, const char* condition);
}  // namespace lm_detail

// Soft assertion: when `condition` is false, logs one entry
//   "<message> <<file>:<line>> <function>\n\n    (<condition>) failed assertion\n\n<stack>"
// and execution goes on with the next statement. The optional arguments are a
// printf format and its values; without them the message is "Assertion".
// Never compiled out.
#define LMAssert(condition, ...)                                              \
  do {                                                                        \
    if (!(condition)) {                                                       \
      ::lm_detail::assertionFailed(                                           \
          ::lm_detail::assertionMessage(__VA_ARGS__), __FILE__, __LINE__,     \
          __PRETTY_FUNCTION__, "(" #condition ")");                           \
    }                                                                         \
  } while (0)

// Named stopwatch. A null `message`, or a name without a running timer,
// (re)starts the timer. Logs "Time <name> [<since last>s of <since start>s] <message>"
// with four decimals; a null name prints as "(null)" but uses the timer "main".
// Meant for one thread at a time, but safe to call from several.
void lxTimeTrack(const char* name, const char* message);

// Seconds since 1 January 2001 UTC, the reference of the stopwatch.
double lmAbsoluteTimeNow();
