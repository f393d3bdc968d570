// lmreceipt-service: the service process. No options: its name is the name
// it was started under, which also names its socket (docs/protocol.md).
// Serves until a minute passes without connections, or until SIGTERM/SIGINT.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "kit/diagnostics.h"
#include "service/receipt_worker.h"
#include "service/server.h"

namespace {

constexpr const char* kDefaultName = "lmreceipt-service";
// A log the service appends to (when a client started it) is emptied at
// start once it has grown beyond this.
constexpr off_t kLogLimit = 16 << 20;

LMServer* runningServer = nullptr;

void stopOnSignal(int) {
  if (runningServer) runningServer->stop();
}

std::string serviceName(const char* argv0) {
  std::string name = argv0 ? argv0 : "";
  name = name.substr(name.rfind('/') + 1);
  return name.empty() ? kDefaultName : name;
}

void limitLogFile() {
  struct stat st {};
  if (fstat(STDERR_FILENO, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > kLogLimit) {
    [[maybe_unused]] int ignored = ftruncate(STDERR_FILENO, 0);
  }
}

}  // namespace

int main(int, char** argv) {
  const std::string name = serviceName(argv[0]);
  lmSetProcessName(name);
  // Replies go out with MSG_NOSIGNAL; this covers anything else that writes
  // to a socket or pipe whose reader went away.
  signal(SIGPIPE, SIG_IGN);

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
  limitLogFile();

  auto server = std::make_unique<LMServer>([] { return std::make_unique<LMXPCWorker>(); });
  runningServer = server.get();
  struct sigaction action {};
  action.sa_handler = stopOnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  // A starter may have blocked them for its own purposes.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigprocmask(SIG_UNBLOCK, &stopSignals, nullptr);

  lmLogf("Listening on %s", listener.activated() ? "the activated socket" : listener.path().c_str());
  int status = 0;
  try {
    server->serve(listener);
  } catch (const std::exception& e) {
    // Only running out of resources gets here; calls in progress still end.
    lmLogf("!!! Stopped early: %s", e.what());
    status = 1;
  }
  runningServer = nullptr;
  lmLog("Stopped");
  return status;
}
