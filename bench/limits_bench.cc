// Time and peak memory of the analysis of hostile documents at 1, 2 and 4
// times a base size, so that growth shows: linear, or flat once a bound
// answers. Each analysis runs in a child process of its own, whose peak
// resident memory the kernel reports (getrusage): once as the analysis in
// process (lmPerformReceiptTask), once as the service serves it (the
// request frame read from a socket, the reply archived and sent as a frame,
// which this process reads and counts).
//
// Usage: lm_limits_bench [--facts] [SHAPE[=SIZE]...]; without shapes every
// shape. A shape alone is measured at 1, 2 and 4 times its base size, a
// shape with a size at that size only (e.g. dense-text=10, at a limit).
// --facts: the task asks for facts too.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "document/generated_pdf_test_util.h"
#include "kit/diagnostics.h"
#include "kit/unicode.h"
#include "service/keyed_archive.h"
#include "service/receipt_worker.h"
#include "service/server.h"
#include "service/transport.h"

namespace {

bool askFacts = false;

// The task of one measurement: the document, and facts when asked for.
LMDictionary taskFor(const LMData& pdf) {
  LMDictionary task{{u"data", pdf}};
  if (askFacts) task.set(u"facts", LMValue(true));
  return task;
}

// 2,000 lines of 99 characters whose font size changes at every character:
// a run of attributes per character.
std::string fontChangingLines() {
  std::string content;
  for (int line = 0; line < 2000; ++line) {
    content += "BT 1 0 0 1 20 " + std::to_string(830 - line * 0.4) + " Tm";
    for (int c = 0; c < 99; ++c) content += c % 2 ? " /F1 0.3 Tf (a) Tj" : " /F1 0.31 Tf (a) Tj";
    content += " ET\n";
  }
  return content;
}

struct Shape {
  const char* name;
  const char* unit;  // what the size counts
  int64_t base;
  std::function<LMData(int64_t size)> make;
};

// `n` pages of one line "Summe 12,34 EUR" each.
LMData summePages(int64_t n) {
  return lmGeneratedPdf(std::vector<std::string>(n, lmGeneratedLines(1, "Summe 12,34 EUR", 8, 12)));
}

const std::vector<Shape>& shapes() {
  static const std::vector<Shape> all = {
      {"crowded-page", "amounts and currency mentions on one page", 3000,
       [](int64_t n) { return lmGeneratedPdf({lmGeneratedLines(n, "EUR 12,34", 0.5, 0.05)}); }},
      {"short-lines", "one-letter lines on one page", 250000,
       [](int64_t n) { return lmGeneratedPdf({lmGeneratedLines(n, "a", 1, 0.0007)}); }},
      {"shared-pages", "pages sharing one content stream", 2500,
       [](int64_t n) {
         return lmGeneratedPdf(
             {"BT /F1 10 Tf 50 800 Td (Summe 12,34 EUR) Tj 0 -20 Td (Datum 01.02.2024) Tj ET"}, n);
       }},
      {"full-pages", "pages of 2,000 amounts (the bound of a page)", 31,
       [](int64_t n) {
         return lmGeneratedPdf(
             std::vector<std::string>(n, lmGeneratedLines(2000, "12,34", 0.3, 0.4)));
       }},
      {"long-invoice", "pages of 40 amounts and currency mentions", 250,
       [](int64_t n) {
         return lmGeneratedPdf(
             std::vector<std::string>(n, lmGeneratedLines(40, "Pos 12,34 EUR", 8, 20)));
       }},
      {"dense-text", "pages of 100,000 one-letter lines", 3,
       [](int64_t n) {
         return lmGeneratedPdf(
             std::vector<std::string>(n, lmGeneratedLines(99990, "a", 0.005, 0.008)));
       }},
      {"font-changes", "pages of 200,000 characters, each in a font size of its own", 2,
       [](int64_t n) { return lmGeneratedPdf(std::vector<std::string>(n, fontChangingLines())); }},
      // An array never closed runs the object to the end of the file.
      {"damaged-page", "pages, the first one's object damaged", 500,
       [](int64_t n) { return lmDamaged(summePages(n), "842]", "842 "); }},
      {"damaged-font", "pages sharing a damaged font", 500,
       [](int64_t n) { return lmDamaged(summePages(n), "/BaseFont/", "/BaseFont["); }},
  };
  return all;
}

// The peak resident memory (MB) of a child process that ran `run` while
// this process ran `meanwhile`; negative when the child crashed.
double peakOfChild(const std::function<void()>& run, const std::function<void()>& meanwhile) {
  const pid_t child = fork();
  if (child == 0) {
    lmSetLogSink([](std::string_view) {});
    run();
    _exit(0);
  }
  meanwhile();
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? usage.ru_maxrss / 1024.0 : -1;
}

// Analyses the document of `shape` at `size` in process and through the
// service's request path, each in a child process: the analysis's wall time,
// both peaks, the reply's size on the wire and how the reply begins.
void measure(const Shape& shape, int64_t size) {
  const LMData pdf = shape.make(size);
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return;
  char outcome[200] = {};
  const auto start = std::chrono::steady_clock::now();
  const double inProcess = peakOfChild(
      [&] {
        close(pipeFds[0]);
        const LMXPCReply reply = lmPerformReceiptTask(taskFor(pdf));
        const std::string text = reply.error
                                     ? "error: " + lmUtf8(reply.error->message)
                                     : "gross " + lmUtf8(reply.result->at(u"gross").toString());
        (void)!write(pipeFds[1], text.data(), text.size());
      },
      [&] {
        close(pipeFds[1]);
        (void)!read(pipeFds[0], outcome, sizeof outcome - 1);
        close(pipeFds[0]);
      });
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  // The request is archived before the fork, as a client would send it.
  const std::vector<uint8_t> request = lxDataSerialize(taskFor(pdf)).value();
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return;
  LMFrame reply;
  const double service = peakOfChild(
      [&] {
        close(pair[0]);
        LMServer server([] { return std::make_unique<LMXPCWorker>(); });
        server.serveSocket(pair[1]);
      },
      [&] {
        close(pair[1]);
        lmWriteFrame(pair[0], kLMFrameRequest, request, kLMNoDeadline);
        lmReadFrame(pair[0], kLMNoDeadline, &reply);
        close(pair[0]);
      });
  std::printf("%-13s %9lld %7.2f s %7.1f MB %7.1f MB %7.1f MB  %s\n", shape.name,
              static_cast<long long>(size), seconds, inProcess, service,
              reply.payload.size() / 1048576.0, outcome);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  std::printf("%-13s %9s %9s %10s %10s %10s  %s\n", "shape", "size", "time", "peak",
              "service", "reply", "outcome");
  std::vector<std::pair<std::string, int64_t>> wanted;  // size 0: the three sizes
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--facts") {
      askFacts = true;
    } else {
      const std::string arg = argv[i];
      const size_t equals = arg.find('=');
      wanted.emplace_back(arg.substr(0, equals),
                          equals == std::string::npos ? 0 : std::atoll(arg.c_str() + equals + 1));
    }
  }
  for (const Shape& shape : shapes()) {
    std::vector<int64_t> sizes;
    if (wanted.empty()) sizes = {shape.base, 2 * shape.base, 4 * shape.base};
    for (const auto& [name, size] : wanted) {
      if (name != shape.name) continue;
      if (size > 0) sizes.push_back(size);
      else sizes.insert(sizes.end(), {shape.base, 2 * shape.base, 4 * shape.base});
    }
    if (sizes.empty()) continue;
    std::printf("# %s: size = %s\n", shape.name, shape.unit);
    for (int64_t size : sizes) measure(shape, size);
  }
  return 0;
}
