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
  const LMXPCReply reply = lmPerformReceiptTask(task);
  // Exactly one of the two.
  if (reply.result.has_value() == reply.error.has_value()) __builtin_trap();
  return 0;
}
