// lmreceipt-service: the service process. No options: its name is the name
// it was started under, which also names its socket (docs/protocol.md); its
// limits and timeouts come from LM_* environment variables
// (docs/reliability.md). Serves until a minute passes without connections,
// or until SIGTERM/SIGINT.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "kit/diagnostics.h"
#include "service/receipt_worker.h"
#include "service/server.h"

namespace {

constexpr const char* kDefaultName = "lmreceipt-service";
// The log (standard error, when it is a file) is emptied once it grows
// beyond this, at start and while running.
constexpr long long kLogLimit = 16 << 20;

std::atomic<LMServer*> runningServer{nullptr};

void stopOnSignal(int) {
  if (LMServer* server = runningServer.load()) server->stop();
}

std::string serviceName(const char* argv0) {
  std::string name = argv0 ? argv0 : "";
  name = name.substr(name.rfind('/') + 1);
  return name.empty() ? kDefaultName : name;
}

// Reads the duration in seconds (fractions allowed) of the variable `name`
// into `value`; leaves it alone, with a log line, when the text is no
// duration. `zeroMeansNever` lets 0 through.
void readSeconds(const char* name, std::chrono::milliseconds& value, bool zeroMeansNever = false) {
  const char* text = std::getenv(name);
  if (!text || !*text) return;
  char* end = nullptr;
  const double seconds = std::strtod(text, &end);
  if (*end != '\0' || !std::isfinite(seconds) || seconds < 0 || seconds > 86400 ||
      (seconds == 0 && !zeroMeansNever)) {
    lmLogf("!!! Ignored %s=%s: not a number of seconds", name, text);
    return;
  }
  value = std::chrono::milliseconds(static_cast<long long>(std::llround(seconds * 1000)));
  if (value.count() == 0 && seconds > 0) value = std::chrono::milliseconds(1);
}

void readCount(const char* name, size_t& value, size_t most) {
  const char* text = std::getenv(name);
  if (!text || !*text) return;
  char* end = nullptr;
  const long long count = std::strtoll(text, &end, 10);
  if (*end != '\0' || count < 1 || static_cast<unsigned long long>(count) > most) {
    lmLogf("!!! Ignored %s=%s: not a count from 1 to %zu", name, text, most);
    return;
  }
  value = static_cast<size_t>(count);
}

LMServerOptions optionsFromEnvironment() {
  LMServerOptions options;
  readCount("LM_WORKERS", options.workers, 256);
  readCount("LM_MAX_CONNECTIONS", options.maxConnections, 65536);
  readSeconds("LM_CALL_TIME_LIMIT", options.callTimeLimit);
  readSeconds("LM_REQUEST_TIMEOUT", options.requestTimeout);
  readSeconds("LM_BUSY_WAIT", options.busyWait, true);
  readSeconds("LM_REPLY_TIMEOUT", options.replyTimeout);
  readSeconds("LM_STOP_GRACE", options.stopGrace, true);
  readSeconds("LM_IDLE_EXIT", options.idleTimeout, true);
  return options;
}

}  // namespace

int main(int, char** argv) {
  const std::string name = serviceName(argv[0]);
  lmSetProcessName(name);
  // Replies go out with MSG_NOSIGNAL; this covers anything else that writes
  // to a socket or pipe whose reader went away.
  signal(SIGPIPE, SIG_IGN);
  // SIGTERM and SIGINT wait until the server can stop: one arriving while
  // the socket is being made is delivered once the server runs, which then
  // removes the socket at once. (A starter may also have blocked them.)
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
  struct sigaction action {};
  action.sa_handler = stopOnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  LMListener listener;
  std::string failure;
  switch (listener.open(name, &failure)) {
    case LMListener::Outcome::kListening:
      break;
    case LMListener::Outcome::kAlreadyServed:
      lmLogf("Another %s is already listening; exiting", name.c_str());
      return 0;
    case LMListener::Outcome::kFailed:
      lmLogf("Cannot listen: %s", failure.c_str());
      return 1;
  }
  lmLimitLogFile(kLogLimit);

  auto server = std::make_unique<LMServer>([] { return std::make_unique<LMXPCWorker>(); },
                                           optionsFromEnvironment());
  runningServer = server.get();
  sigprocmask(SIG_UNBLOCK, &stopSignals, nullptr);

  lmLogf("Listening on %s", listener.activated() ? "the activated socket" : listener.path().c_str());
  int status = 0;
  try {
    if (!server->serve(listener)) {
      // Calls that ignore their cancellation still run; the process ends
      // without them.
      lmLog("Stopped");
      _exit(0);
    }
  } catch (const std::exception& e) {
    // Only running out of resources gets here; calls in progress still end.
    lmLogf("!!! Stopped early: %s", e.what());
    status = 1;
  }
  runningServer = nullptr;
  lmLog("Stopped");
  return status;
}
