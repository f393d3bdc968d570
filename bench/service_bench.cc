// The service against the same analysis in this process: the warm-up call,
// one call with a one-page receipt (archiving the task, the round trip and
// reading the reply's archive included), the archive work on its own, and
// calls per second with 1, 2 and 4 parallel clients. Prints the service's
// overhead over the in-process analysis at the end, measured once more in
// alternating blocks, for the bare call and for the same call through the
// service client LMXPC (see measureOverhead).
//
// Starts its own service through the client's on-demand start, in a
// temporary runtime folder, and stops it when done.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kit/diagnostics.h"
#include "service/keyed_archive.h"
#include "service/receipt_worker.h"
#include "service/transport.h"
#include "service/xpc_client.h"

namespace {

constexpr const char* kServiceName = "lmreceipt-service";

LMDictionary sampleTask() {
  std::ifstream in(std::string(LM_TESTDATA_DIR) + "/sample-receipt.pdf", std::ios::binary);
  LMData bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return LMDictionary{{u"data", std::move(bytes)}, {u"currency", u"EUR"}, {u"taxes", LMArray{19, 7}}};
}

// One call as a client makes it; nil when it failed.
LMValue callService(const LMValue& task) {
  auto request = lxDataSerialize(task);
  if (!request) return LMValue();
  auto reply = lmServiceCall(kServiceName, *request);
  if (!reply || reply->error) return LMValue();
  return lxDataUnserialize(reply->bytes).value_or(LMValue());
}

void BM_BootRoundTrip(benchmark::State& state) {
  const LMValue boot(LMDictionary{{u"__boot", true}});
  for (auto _ : state) benchmark::DoNotOptimize(callService(boot));
}

void BM_InProcessTask(benchmark::State& state) {
  const LMDictionary task = sampleTask();
  for (auto _ : state) benchmark::DoNotOptimize(lmPerformReceiptTask(task));
}

// The process listening on the service's socket; -1 when none.
pid_t servicePid();

// CPU seconds the process `pid` has used so far, all its threads together.
double cpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // Fields after the command name, which ends with the last ')'.
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  unsigned long long user = 0, system = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) user = std::stoull(field);
    if (i == 15) system = std::stoull(field);
  }
  return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Also counts the service's CPU time per call, so that the overhead can be
// told apart from waiting for a busy machine.
void BM_ServiceTask(benchmark::State& state) {
  const LMValue task(sampleTask());
  if (callService(task).at(u"gross").toString() != u"15.3") {
    state.SkipWithError("the service did not analyse the sample");
    return;
  }
  const pid_t pid = servicePid();
  const double before = cpuSeconds(pid);
  for (auto _ : state) benchmark::DoNotOptimize(callService(task));
  state.counters["service_cpu_ms"] = benchmark::Counter(
      (cpuSeconds(pid) - before) * 1000.0 / static_cast<double>(state.iterations()));
}

// The archive work of one call on its own: the service writes the result,
// the client reads it (the task's archive is a small part of the bytes).
void BM_ArchiveWriteResult(benchmark::State& state) {
  const LMXPCReply reply = lmPerformReceiptTask(sampleTask());
  for (auto _ : state) benchmark::DoNotOptimize(lxDataSerialize(*reply.result));
  state.counters["bytes"] = static_cast<double>(lxDataSerialize(*reply.result)->size());
}

void BM_ArchiveReadResult(benchmark::State& state) {
  const LMXPCReply reply = lmPerformReceiptTask(sampleTask());
  const std::vector<uint8_t> archive = *lxDataSerialize(*reply.result);
  for (auto _ : state) benchmark::DoNotOptimize(lxDataUnserialize(archive));
}

void BM_ArchiveTask(benchmark::State& state) {
  const LMValue task(sampleTask());
  for (auto _ : state) benchmark::DoNotOptimize(lxDataUnserialize(*lxDataSerialize(task)));
}

void BM_ServiceThroughput(benchmark::State& state) {
  const LMValue task(sampleTask());
  for (auto _ : state) benchmark::DoNotOptimize(callService(task));
  state.SetItemsProcessed(state.iterations());
}

// The service's overhead measured so that a machine whose speed drifts (a
// shared or virtual one) does not decide it: short blocks of calls in
// process, through the service and through the service client alternate,
// and the overhead is the median of the differences between neighbouring
// blocks.
struct Overhead {
  double inProcessMs = 0;  // median per call
  double serviceMs = 0;    // median per call
  double overheadMs = 0;   // median of the blocks' differences per call
  // The same call through LMXPC, as an application makes it: its queue,
  // the operation's thread and the waiting caller add their hand-offs.
  double clientOverheadMs = 0;
  // The same from the fastest tenth of each side's blocks: noise only ever
  // adds time, so this is the reading least disturbed by the machine.
  double fastInProcessMs = 0;
  double fastServiceMs = 0;
  // The slowest tenth of the in-process blocks: far above the fastest, the
  // machine was busy with other work and none of the figures can be trusted.
  double slowInProcessMs = 0;
};

Overhead measureOverhead(int blocks, int callsPerBlock) {
  using Clock = std::chrono::steady_clock;
  const LMValue task(sampleTask());
  LMXPC client(kServiceName);
  std::vector<double> inProcess, service, difference, clientDifference;
  // Milliseconds per call of a block of `call`.
  auto block = [&](auto call) {
    const auto from = Clock::now();
    for (int i = 0; i < callsPerBlock; ++i) call();
    return std::chrono::duration<double, std::milli>(Clock::now() - from).count() / callsPerBlock;
  };
  auto analyse = [&] { benchmark::DoNotOptimize(lmPerformReceiptTask(*task.asDictionary())); };
  auto bare = [&] { benchmark::DoNotOptimize(callService(task)); };
  auto throughClient = [&] {
    benchmark::DoNotOptimize(client.performXPCWithObject(*task.asDictionary()));
  };
  // Both sides warm first: the service compiles its patterns on its first
  // analysis, as this process does on its own.
  for (int i = 0; i < 5; ++i) {
    analyse();
    bare();
    throughClient();
  }
  for (int b = 0; b < blocks; ++b) {
    // The two service blocks take turns at following the in-process block,
    // which leaves the caches to whichever comes next.
    inProcess.push_back(block(analyse));
    double bareMs = 0, clientMs = 0;
    if (b % 2 == 0) {
      bareMs = block(bare);
      clientMs = block(throughClient);
    } else {
      clientMs = block(throughClient);
      bareMs = block(bare);
    }
    service.push_back(bareMs);
    difference.push_back(bareMs - inProcess.back());
    clientDifference.push_back(clientMs - inProcess.back());
  }
  auto quantile = [](std::vector<double> v, double q) {
    std::sort(v.begin(), v.end());
    return v[static_cast<size_t>(q * static_cast<double>(v.size() - 1))];
  };
  return {quantile(inProcess, 0.5),        quantile(service, 0.5),   quantile(difference, 0.5),
          quantile(clientDifference, 0.5), quantile(inProcess, 0.1), quantile(service, 0.1),
          quantile(inProcess, 0.9)};
}

// The result archive written and read as a call finds the caches: after
// other work has pushed the archive code and data out of the processor's
// private caches (the service has just analysed, the client has slept). The
// loops above run warm and show less. Medians in milliseconds.
struct ColdArchive {
  double writeMs = 0;
  double readMs = 0;
};

ColdArchive measureColdArchive(int rounds) {
  using Clock = std::chrono::steady_clock;
  const LMDictionary task = sampleTask();
  // Larger than the private caches (1-2 MiB here), smaller than the shared one.
  std::vector<uint8_t> other(8u << 20);
  auto evict = [&] {
    for (size_t i = 0; i < other.size(); i += 64) other[i]++;
  };
  std::vector<double> writes, reads;
  for (int i = 0; i < rounds; ++i) {
    const LMXPCReply reply = lmPerformReceiptTask(task);  // a fresh tree, as in the service
    evict();
    const auto t0 = Clock::now();
    const auto archive = lxDataSerialize(*reply.result);
    const auto t1 = Clock::now();
    evict();
    const auto t2 = Clock::now();
    benchmark::DoNotOptimize(lxDataUnserialize(*archive));
    const auto t3 = Clock::now();
    writes.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    reads.push_back(std::chrono::duration<double, std::milli>(t3 - t2).count());
  }
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  return {median(writes), median(reads)};
}

// What any process boundary costs on this machine: a one-byte round trip
// over a socket pair to a child process that busies itself `workMs` before
// answering, less that work; the median of many. On a virtual machine whose
// idle processors sleep, waking them dominates.
double bareRoundTripMs(double workMs) {
  using Clock = std::chrono::steady_clock;
  const auto work = std::chrono::duration<double, std::milli>(workMs);
  auto busy = [](auto duration) {
    for (const auto end = Clock::now() + duration; Clock::now() < end;) {
    }
  };
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    close(pair[0]);
    char c;
    while (read(pair[1], &c, 1) == 1) {
      busy(work);
      if (write(pair[1], &c, 1) != 1) break;
    }
    _exit(0);
  }
  close(pair[1]);
  std::vector<double> beyond;
  for (int i = 0; i < 500 && child > 0; ++i) {
    char c = 'x';
    const auto t0 = Clock::now();
    if (write(pair[0], &c, 1) != 1 || read(pair[0], &c, 1) != 1) break;
    beyond.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0 - work).count());
    busy(std::chrono::microseconds(100));  // the client's own share of a call
  }
  close(pair[0]);
  if (child > 0) waitpid(child, nullptr, 0);
  if (beyond.empty()) return -1;
  std::sort(beyond.begin(), beyond.end());
  return beyond[beyond.size() / 2];
}

BENCHMARK(BM_BootRoundTrip)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_InProcessTask)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ServiceTask)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ArchiveWriteResult)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ArchiveReadResult)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ArchiveTask)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ServiceThroughput)->Threads(1)->Threads(2)->Threads(4)->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Keeps each run's real and CPU time per iteration (milliseconds), the
// service's CPU time and the call rate, by name.
class OverheadReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const double toMs = benchmark::GetTimeUnitMultiplier(benchmark::kMillisecond) /
                          benchmark::GetTimeUnitMultiplier(run.time_unit);
      milliseconds[run.benchmark_name()] = run.GetAdjustedRealTime() * toMs;
      cpuMilliseconds[run.benchmark_name()] = run.GetAdjustedCPUTime() * toMs;
      if (auto cpu = run.counters.find("service_cpu_ms"); cpu != run.counters.end()) {
        serviceCpuMilliseconds[run.benchmark_name()] = cpu->second.value;
      }
      if (auto rate = run.counters.find("items_per_second"); rate != run.counters.end()) {
        perSecond[run.benchmark_name()] = rate->second.value;
      }
    }
  }
  std::map<std::string, double> milliseconds;
  std::map<std::string, double> cpuMilliseconds;
  std::map<std::string, double> serviceCpuMilliseconds;
  std::map<std::string, double> perSecond;
};

pid_t servicePid() {
  const std::string path = lmServiceSocketPath(kServiceName);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ucred peer{};
  socklen_t size = sizeof peer;
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
  close(fd);
  return ok ? peer.pid : -1;
}

}  // namespace

int main(int argc, char** argv) {
  char folder[] = "/tmp/lmreceipt-bench-XXXXXX";
  if (!mkdtemp(folder)) return 1;
  setenv("XDG_RUNTIME_DIR", folder, 1);
  if (!std::getenv("LM_SERVICE_DIR")) setenv("LM_SERVICE_DIR", LM_SERVICE_DIR, 1);

  // The first call starts the service; the boot benchmark measures warm calls.
  std::string failure;
  const auto boot = lxDataSerialize(LMDictionary{{u"__boot", true}});
  if (!lmServiceCall(kServiceName, *boot, &failure)) {
    std::fprintf(stderr, "cannot start the service: %s\n", failure.c_str());
    return 1;
  }

  // The in-process runs would log every call; the service logs to its own file.
  lmSetLogSink([](std::string_view) {});
  benchmark::Initialize(&argc, argv);
  // Measured first: after the parallel clients of the throughput runs this
  // process's own analyses run markedly slower for a while.
  constexpr int kBlocks = 120, kCallsPerBlock = 5;
  const Overhead o = measureOverhead(kBlocks, kCallsPerBlock);
  const double bare = bareRoundTripMs(o.inProcessMs);
  const ColdArchive cold = measureColdArchive(200);
  OverheadReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  const auto& ms = reporter.milliseconds;
  {
    std::printf("\none-page receipt, elapsed (%d alternating blocks of %d calls, medians): "
                "in process %.3f ms, through the service %.3f ms, overhead %.3f ms = %.1f%%\n",
                kBlocks, kCallsPerBlock, o.inProcessMs, o.serviceMs, o.overheadMs,
                100.0 * o.overheadMs / o.inProcessMs);
    std::printf("the fastest tenth of the blocks: in process %.3f ms, through the service %.3f ms, "
                "overhead %.3f ms = %.1f%%\n",
                o.fastInProcessMs, o.fastServiceMs, o.fastServiceMs - o.fastInProcessMs,
                100.0 * (o.fastServiceMs - o.fastInProcessMs) / o.fastInProcessMs);
    if (o.slowInProcessMs > 1.15 * o.fastInProcessMs) {
      std::printf("!!! the machine was busy: the same analysis took %.3f to %.3f ms from block to "
                  "block; run again when it is quiet\n",
                  o.fastInProcessMs, o.slowInProcessMs);
    }
    std::printf("the same call through the service client (LMXPC): overhead %.3f ms = %.1f%%\n",
                o.clientOverheadMs, 100.0 * o.clientOverheadMs / o.inProcessMs);
    std::printf("a bare socket round trip around the same work, here: %.3f ms = %.1f%%\n", bare,
                100.0 * bare / o.inProcessMs);
    std::printf("the result archive as a call finds the caches: written in %.3f ms, read in %.3f ms "
                "(%.1f%% together)\n",
                cold.writeMs, cold.readMs, 100.0 * (cold.writeMs + cold.readMs) / o.inProcessMs);
    if (ms.count("BM_InProcessTask") && reporter.serviceCpuMilliseconds.count("BM_ServiceTask")) {
      const double alone = reporter.cpuMilliseconds.at("BM_InProcessTask");
      const double both = reporter.cpuMilliseconds.at("BM_ServiceTask") +
                          reporter.serviceCpuMilliseconds.at("BM_ServiceTask");
      std::printf("one-page receipt, CPU: in process %.3f ms, client and service together "
                  "%.3f ms, overhead %.3f ms = %.1f%%\n",
                  alone, both, both - alone, 100.0 * (both - alone) / alone);
    }
  }
  for (int threads : {1, 2, 4}) {
    const std::string name = "BM_ServiceThroughput/real_time/threads:" + std::to_string(threads);
    if (reporter.perSecond.count(name)) {
      std::printf("%d client%s: %.1f calls/s\n", threads, threads > 1 ? "s" : "",
                  reporter.perSecond.at(name));
    }
  }

  if (const pid_t pid = servicePid(); pid > 0) kill(pid, SIGTERM);
  for (int i = 0; i < 500 && std::filesystem::exists(lmServiceSocketPath(kServiceName)); ++i) {
    usleep(10'000);
  }
  std::filesystem::remove_all(folder);
  benchmark::Shutdown();
  return 0;
}
