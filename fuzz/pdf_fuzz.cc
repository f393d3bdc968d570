// PDF bytes through the task handler's whole analysis: opening, text model,
// recognizers and stages, and the facts answer (embedded files, e-invoice,
// text facts, conflicts). Any crash, leak or undefined behaviour is a bug.
#include <cstddef>
#include <cstdint>

#include "kit/diagnostics.h"
#include "service/receipt_worker.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    lmSetLogSink([](std::string_view) {});
    return true;
  }();
  (void)quiet;
  const LMDictionary task{{u"data", LMData(data, data + size)},
                          {u"currency", u"EUR"},
                          {u"taxes", LMArray{19, 7}},
                          {u"facts", true}};
  // Smaller element bounds than the service's keep every input far inside the
  // fuzzer's time limit under the sanitizers (a page of 2,000 amounts and
  // currency mentions pairs each amount with each mention); the bounds' own
  // code runs all the same.
  static const LMAnalysisLimits limits{.maxPageElements = 400, .maxDocumentElements = 10000};
  LMXPCWorker worker;
  worker.setLimits(limits);
  LMXPCReply reply;
  worker.performWithObject(LMValue(task), [&reply](LMXPCReply r) { reply = std::move(r); });
  // Exactly one of the two.
  if (reply.result.has_value() == reply.error.has_value()) __builtin_trap();
  return 0;
}
