// LMXPCWorker: the service's worker. Its work() analyses the PDF of one task
// dictionary and replies the analysis result plus every page's text.
//
// Task: "data" (bytes, the whole PDF; required), "currency" (default currency
// code, "" when absent), "taxes" (tax rates in percent, empty when absent).
// Reply: the 21-key analysis result plus "pages", one attributed text per page
// (empty for a page without text). Errors: "data required", "Could not open
// document", and the message of a task whose values have the wrong kind.
#pragma once
#include "service/worker_runtime.h"

class LMXPCWorker : public LMXPCBaseWorker {
 public:
  void work() override;
};

// Runs one task in this process, as the service would: the reply's result or
// its error.
LMXPCReply lmPerformReceiptTask(const LMDictionary& task);
