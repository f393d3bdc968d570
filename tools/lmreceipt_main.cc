// lmreceipt: analyses receipt and invoice PDFs from the command line, either
// in this process exactly as the service answers a task (analyze), or through
// the service itself (call).
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kit/decimal.h"
#include "kit/diagnostics.h"
#include "kit/limits.h"
#include "kit/unicode.h"
#include "kit/value.h"
#include "facts/facts_format.h"
#include "recognizers/preparation.h"
#include "service/receipt_worker.h"
#include "service/xpc_client.h"

namespace {

// The service `call` talks to; the transport starts the executable of this
// name on demand.
constexpr const char* kServiceName = "lmreceipt-service";

constexpr const char* kUsage =
    "usage: lmreceipt analyze [--currency CODE] [--tax RATE]... [--format json|summary]\n"
    "                         [--no-facts | --facts-from best|text|e-invoice]\n"
    "                         [--jobs N] [--verbose] FILE...\n"
    "       lmreceipt call [--currency CODE] [--tax RATE]... [--format json|summary]\n"
    "                      [--no-facts | --facts-from best|text|e-invoice]\n"
    "                      [--timeout SECONDS] [--verbose] FILE...\n"
    "       lmreceipt --help | --version\n";

constexpr const char* kHelp =
    "lmreceipt analyses receipt and invoice PDFs (and e-invoice XML files) and\n"
    "prints the bookkeeping facts: gross, net and tax amount, currency and document\n"
    "date, with the findings they rest on.\n"
    "\n"
    "  lmreceipt analyze [options] FILE...   analyse in this process\n"
    "  lmreceipt call [options] FILE...      the same through the service\n"
    "\n"
    "Options:\n"
    "  --currency CODE    default currency when the document names none (e.g. EUR)\n"
    "  --tax RATE         a tax rate in percent that applies to you (e.g. 19); repeat\n"
    "                     for several rates\n"
    "  --format FORMAT    json (default): the whole result as JSON; one object for\n"
    "                     one file, one object per line with a \"file\" key for\n"
    "                     several; summary: one readable line per file\n"
    "  --facts-from SOURCE where the facts come from: best (default: the embedded\n"
    "                     e-invoice when there is a usable one, else the page\n"
    "                     text), text, or e-invoice\n"
    "  --no-facts         the standard result alone, without \"facts\" (summary:\n"
    "                     the standard analysis's values)\n"
    "  --jobs N           analyze only: files analysed in parallel (default: the\n"
    "                     number of cores); results are printed in the order of the\n"
    "                     files\n"
    "  --timeout SECONDS  call only: give up on a file when the service has not\n"
    "                     answered within this time, starting the service and\n"
    "                     the warm-up call included (default 120; 0: wait forever)\n"
    "  --verbose          also print the log on standard error (analyze: one line\n"
    "                     per call, warnings about damaged PDFs; call: the client's\n"
    "                     log)\n"
    "  --help             this text\n"
    "  --version          the version of lmreceipt\n"
    "\n"
    "In JSON, amounts are decimal texts (\"12.5\"), dates whole Unix seconds as text,\n"
    "and \"pages\" holds each page's plain text. \"facts\" (see docs/facts.md) holds\n"
    "money as text with the currency's decimal places (\"84.60\") and dates as\n"
    "\"YYYY-MM-DD\". An e-invoice XML file gives \"facts\" and an empty \"pages\".\n"
    "A file that cannot be analysed prints {\"file\": ..., \"error\": ...}; the\n"
    "other files are still analysed.\n"
    "\n"
    "call sends the files one at a time to the service lmreceipt-service over its\n"
    "local socket ($XDG_RUNTIME_DIR/lmreceipt-service.sock, or\n"
    "/tmp/lmreceipt-service-<uid>/ when XDG_RUNTIME_DIR is unset) and prints what\n"
    "analyze prints. When nothing listens there it starts the service: the\n"
    "executable lmreceipt-service in $LM_SERVICE_DIR when that is set, else beside\n"
    "lmreceipt, else where it was installed (" LM_SERVICE_INSTALL_DIR "),\n"
    "else found through $PATH. The service ends by itself after a minute\n"
    "without calls; its log is lmreceipt-service.log beside the socket. A service\n"
    "that cannot be reached or does not answer in time is reported per file as\n"
    "\"Service not reachable: ...\".\n"
    "The found elements (numbers, dates, terms) travel in their archive form, which\n"
    "leaves out typography, decimal places, scores and features; in call's JSON\n"
    "those come back as zero, false or null. Everything else is the same.\n"
    "\n"
    "Exit status: 0 when every file was analysed, 1 when any failed, 2 for bad usage.\n";

struct Options {
  bool viaService = false;  // call rather than analyze
  LMValue currency = LMValue(u"");
  LMArray taxes;
  bool summary = false;
  bool facts = true;
  const char16_t* factsFrom = u"best";
  unsigned jobs = 0;
  std::chrono::milliseconds timeout = kLMXPCDefaultTimeout;  // call only
  bool verbose = false;
  std::vector<std::string> files;
};

int usageError(const std::string& message) {
  std::cerr << "lmreceipt: " << message << "\n" << kUsage;
  return 2;
}

// A tax rate as a number: integral rates as integers, others as doubles.
std::optional<LMValue> parseRate(const std::string& text) {
  auto decimal = LMDecimal::fromString(text);
  if (!decimal || decimal->isNaN() || decimal->isNegative()) return std::nullopt;
  if (decimal->exponent() >= 0) return LMValue(decimal->integerValue());
  return LMValue(std::stod(text));
}

struct Outcome {
  bool ok = false;
  std::string text;  // what to print for this file, unless `json` is set
  // A JSON result, written in pieces when its turn comes so that the whole
  // text never sits in memory (LMValue::jsonObject applied twice on the way).
  std::optional<LMValue> json;
  bool pretty = false;

  Outcome() = default;
  Outcome(bool isOk, std::string line) : ok(isOk), text(std::move(line)) {}
  Outcome(LMValue result, bool isPretty) : ok(true), json(std::move(result)), pretty(isPretty) {}
};

std::string twoPlaces(const LMValue& v) {
  const LMDecimal* d = v.asDecimal();
  if (!d) return "-";
  std::string s = d->fixedValue().stringValue();
  const size_t point = s.find('.');
  if (point == std::string::npos) return s + ".00";
  return s + std::string(2 - std::min<size_t>(2, s.size() - point - 1), '0');
}

// The largest input file: what one analysis may read (LMAnalysisLimits).
const size_t kMaxFileBytes = LMAnalysisLimits().maxPdfBytes;

// The bytes of the file at `path`; nullopt with errno set when it cannot be
// read (missing, a folder, not permitted, a read error; EFBIG for a file, or
// a pipe's contents, larger than kMaxFileBytes, found before reading it or
// as soon as the limit is passed).
std::optional<LMData> readWholeFile(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  const bool isFile = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (!isFile && S_ISDIR(st.st_mode)) {
    close(fd);
    errno = EISDIR;
    return std::nullopt;
  }
  if (isFile && static_cast<uint64_t>(st.st_size) > kMaxFileBytes) {
    close(fd);
    errno = EFBIG;
    return std::nullopt;
  }
  // Room for the whole file and one byte more, to see its end without
  // growing; a pipe, or a file that grew meanwhile, gets more as it comes.
  LMData bytes(isFile ? static_cast<size_t>(st.st_size) + 1 : 65536);
  for (size_t used = 0;;) {
    if (used > kMaxFileBytes) {
      close(fd);
      errno = EFBIG;
      return std::nullopt;
    }
    if (used == bytes.size()) bytes.resize(std::min(2 * used, kMaxFileBytes + 1));
    const ssize_t n = read(fd, bytes.data() + used, bytes.size() - used);
    if (n > 0) {
      used += static_cast<size_t>(n);
    } else if (n == 0) {
      bytes.resize(used);
      break;
    } else if (errno != EINTR) {
      const int error = errno;
      close(fd);
      errno = error;
      return std::nullopt;
    }
  }
  close(fd);
  return bytes;
}

// Answers one task: in this process, or through the service.
using Performer = std::function<LMXPCReply(LMDictionary&& task)>;

Outcome analyzeFile(const std::string& path, const Options& options, bool withFileKey,
                    const Performer& perform) {
  LMDictionary errorObject;
  if (withFileKey || options.summary) errorObject.set(u"file", lmUtf16(path));
  std::optional<LMData> bytes = readWholeFile(path);
  LMXPCReply reply;
  if (!bytes && errno == EFBIG) {
    reply.error = LMXPCError{
        kLMErrorDomain, kLMErrorCode,
        u"Could not read file: file too large (limit " +
            lmUtf16(std::to_string(kMaxFileBytes >> 20)) + u" MB)"};
  } else if (!bytes) {
    reply.error = LMXPCError{kLMErrorDomain, kLMErrorCode,
                             u"Could not read file: " + lmUtf16(std::strerror(errno))};
  } else {
    // Set one by one: a braced list would copy the bytes.
    LMDictionary task;
    task.set(u"data", LMValue(std::move(*bytes)));
    task.set(u"currency", options.currency);
    task.set(u"taxes", options.taxes);
    if (options.facts) {
      task.set(u"facts", true);
      task.set(u"factsFrom", options.factsFrom);
    }
    reply = perform(std::move(task));
  }
  if (reply.error || !reply.result || !reply.result->asDictionary()) {
    const std::u16string message = reply.error ? reply.error->message : u"No result";
    if (options.summary) return {false, path + ": error: " + lmUtf8(message)};
    errorObject.set(u"error", message);
    return {false, lmUtf8(LMValue(errorObject).toJSON().value_or(u"{}"))};
  }
  const LMDictionary& result = *reply.result->asDictionary();
  const LMDictionary* facts = options.facts ? result.at(u"facts").asDictionary() : nullptr;
  if (options.summary && facts) return {true, lmFactsSummary(path, *facts)};
  if (options.summary) {
    const LMValue& date = result.at(u"date");
    const std::string day = date.asDate() ? lmUtf8(date.asDate()->descriptionDate()) : "-";
    const std::string currency = result.at(u"currency").isTrue()
                                     ? lmUtf8(result.at(u"currency").toString())
                                     : "-";
    return {true, path + ": gross " + twoPlaces(result.at(u"gross")) + " net " +
                      twoPlaces(result.at(u"net")) + " tax " + twoPlaces(result.at(u"tax")) +
                      " currency " + currency + " date " + day};
  }
  LMDictionary output;
  if (withFileKey) output.set(u"file", lmUtf16(path));
  // The result's values move into the output instead of being copied.
  LMDictionary& owned = *reply.result->asDictionary();
  for (const std::u16string& key : owned.keys()) {
    LMValue& value = *owned.find(key);
    if (key == u"facts" && facts) {
      output.set(u"facts", lmFactsJSONObject(*facts));
      continue;
    }
    if (key != u"pages") {
      output.set(key, std::move(value));
      continue;
    }
    LMArray texts;
    if (const LMArray* pages = value.asArray()) {
      for (const LMValue& page : *pages) texts.emplace_back(page.toString());
    }
    output.set(u"pages", std::move(texts));
  }
  // Found elements project into dictionaries that may still hold decimals;
  // a second projection turns those into text as well.
  return Outcome(LMValue(std::move(output)), !withFileKey);
}

// Prints one outcome and a line break; false when it is not a success.
bool printOutcome(const Outcome& o, const std::string& path) {
  const auto sink = [](std::string_view piece) { std::cout.write(piece.data(), piece.size()); };
  if (o.json && !lmWriteJSON(*o.json, 2, o.pretty, sink)) {
    std::cout << "{\"file\": \"" << path << "\", \"error\": \"Result is not JSON\"}\n";
    return false;
  }
  if (!o.json) std::cout << o.text;
  std::cout << "\n";
  return o.ok;
}

int analyze(const Options& options, const Performer& perform) {
  const size_t count = options.files.size();
  const bool several = count > 1;
  std::vector<Outcome> outcomes(count);
  std::vector<bool> done(count, false);
  std::mutex mutex;
  size_t nextToPrint = 0;
  size_t finished = 0;
  bool failed = false;
  const bool progress = count > 3 && isatty(STDERR_FILENO);
  std::atomic<size_t> nextFile{0};

  // Prints finished results in input order as soon as the earlier ones are out.
  auto flushInOrder = [&] {
    while (nextToPrint < count && done[nextToPrint]) {
      if (!printOutcome(outcomes[nextToPrint], options.files[nextToPrint])) failed = true;
      outcomes[nextToPrint] = Outcome();  // printed: its memory goes
      ++nextToPrint;
    }
    std::cout.flush();
  };

  auto worker = [&] {
    while (true) {
      const size_t i = nextFile.fetch_add(1);
      if (i >= count) return;
      Outcome outcome = analyzeFile(options.files[i], options, several, perform);
      std::lock_guard<std::mutex> lock(mutex);
      outcomes[i] = std::move(outcome);
      done[i] = true;
      ++finished;
      flushInOrder();
      if (progress) std::fprintf(stderr, "\r%zu/%zu analysed", finished, count);
    }
  };

  unsigned jobs = options.jobs ? options.jobs : std::max(1u, std::thread::hardware_concurrency());
  jobs = static_cast<unsigned>(std::min<size_t>(jobs, count));
  std::vector<std::thread> threads;
  for (unsigned j = 1; j < jobs; ++j) threads.emplace_back(worker);
  worker();
  for (auto& t : threads) t.join();
  if (progress) std::fprintf(stderr, "\n");
  return failed ? 1 : 0;
}

// Starts building the recognizers' tables and patterns on a second thread,
// which a fresh process would otherwise do after reading the first page:
// half of a one-page analysis. The thread is made bound to the other
// processors (made free and bound afterwards, it would at times first run
// beside this thread for milliseconds) and is not waited for: the command
// line ends with _Exit. On a single processor it is not started.
void startPreparing() {
  cpu_set_t others;
  CPU_ZERO(&others);
  if (sched_getaffinity(0, sizeof others, &others) != 0) return;
  if (const int here = sched_getcpu(); here >= 0) CPU_CLR(here, &others);
  if (CPU_COUNT(&others) == 0) return;
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return;
  pthread_t thread;
  if (pthread_attr_setaffinity_np(&attributes, sizeof others, &others) == 0 &&
      pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0) {
    pthread_create(
        &thread, &attributes,
        [](void*) -> void* {
          lmPrepareRecognizers();
          return nullptr;
        },
        nullptr);
  }
  pthread_attr_destroy(&attributes);
}

// The files one at a time through one client (its queue sends one call at a
// time anyway), so --jobs does not apply.
int call(Options options) {
  LMXPC xpc(kServiceName, lmServiceCall, options.timeout);
  options.jobs = 1;
  return analyze(options, [&xpc](LMDictionary&& task) {
    LMXPCReply reply;
    xpc.performXPCSynchronousWithObject(
        task, [&reply](const LMValue& result, const std::optional<LMXPCError>& error) {
          if (!result.isNil()) reply.result = result;
          reply.error = error;
        });
    return reply;
  });
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usageError("missing command");
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    std::cout << kHelp;
    return 0;
  }
  if (args[0] == "--version") {
    std::cout << "lmreceipt " LM_VERSION "\n";
    return 0;
  }
  if (args[0] != "analyze" && args[0] != "call") {
    return usageError("unknown command '" + args[0] + "'");
  }

  Options options;
  options.viaService = args[0] == "call";
  bool onlyFiles = false;
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](const char* name) -> const std::string* {
      if (i + 1 >= args.size()) return nullptr;
      (void)name;
      return &args[++i];
    };
    if (onlyFiles || a.empty() || a[0] != '-' || a == "-") {
      options.files.push_back(a);
    } else if (a == "--") {
      onlyFiles = true;
    } else if (a == "--help" || a == "-h") {
      std::cout << kHelp;
      return 0;
    } else if (a == "--currency") {
      const std::string* v = value("--currency");
      if (!v) return usageError("--currency needs a currency code");
      options.currency = LMValue(lmUtf16(*v));
    } else if (a == "--tax") {
      const std::string* v = value("--tax");
      if (!v) return usageError("--tax needs a rate in percent");
      auto rate = parseRate(*v);
      if (!rate) return usageError("--tax needs a rate in percent, not '" + *v + "'");
      options.taxes.push_back(*rate);
    } else if (a == "--format") {
      const std::string* v = value("--format");
      if (!v || (*v != "json" && *v != "summary")) {
        return usageError("--format needs json or summary");
      }
      options.summary = *v == "summary";
    } else if (a == "--no-facts") {
      options.facts = false;
    } else if (a == "--facts-from") {
      const std::string* v = value("--facts-from");
      if (!v || (*v != "best" && *v != "text" && *v != "e-invoice")) {
        return usageError("--facts-from needs best, text or e-invoice");
      }
      options.factsFrom = *v == "text" ? u"text" : *v == "e-invoice" ? u"e-invoice" : u"best";
    } else if (a == "--verbose" || a == "-v") {
      options.verbose = true;
    } else if (a == "--timeout" && options.viaService) {
      const std::string* v = value("--timeout");
      char* end = nullptr;
      const double seconds = v ? std::strtod(v->c_str(), &end) : -1;
      if (!v || *end != '\0' || !(seconds >= 0 && seconds <= 86400)) {
        return usageError("--timeout needs a number of seconds");
      }
      options.timeout = std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
    } else if (a == "--timeout") {
      return usageError("--timeout applies to call only");
    } else if ((a == "--jobs" || a == "-j") && options.viaService) {
      return usageError("--jobs applies to analyze only; call sends one file at a time");
    } else if (a == "--jobs" || a == "-j") {
      const std::string* v = value("--jobs");
      const long jobs = v ? std::strtol(v->c_str(), nullptr, 10) : 0;
      if (jobs < 1 || jobs > 256) return usageError("--jobs needs a number from 1 to 256");
      options.jobs = static_cast<unsigned>(jobs);
    } else {
      return usageError("unknown option '" + a + "'");
    }
  }
  if (options.files.empty()) return usageError("no FILE given");
  if (!options.verbose) lmSetLogSink([](std::string_view) {});
  if (options.viaService) return call(std::move(options));
  // A long document's analysis frees blocks of megabytes (texts, arrays that
  // grew); with its threshold fixed, the allocator gives such blocks back to
  // the system instead of raising the threshold and keeping later ones in
  // the heap (1000 pages: a peak of 147 MB instead of 151).
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
  startPreparing();
  const int status =
      analyze(options, [](LMDictionary&& task) { return lmPerformReceiptTask(std::move(task)); });
  // The preparing thread may still be building a table that no document
  // needed; everything is written, so the process ends without waiting.
  std::cout.flush();
  std::fflush(nullptr);
  std::_Exit(status);
}
