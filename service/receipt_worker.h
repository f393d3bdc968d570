// LMXPCWorker: the service's worker. Its work() analyses the PDF of one task
// dictionary and replies the analysis result plus every page's text.
//
// Task: "data" (bytes, the whole PDF; required), "currency" (default currency
// code, "" when absent), "taxes" (tax rates in percent, empty when absent).
// Reply: the 21-key analysis result plus "pages", one attributed text per page
// (empty for a page without text). Errors: "data required", "Could not open
// document", the message of a task whose values have the wrong kind, the
// message naming the bound of the limits a document goes beyond ("Document
// too large: ...") and the cancellation's message when the call is
// cancelled while it runs.
#pragma once
#include <optional>
#include <string>

#include "facts/facts_request.h"
#include "kit/limits.h"
#include "service/worker_runtime.h"

class LMXPCWorker : public LMXPCBaseWorker {
 public:
  void work() override;

  // The bounds of the documents this worker analyses; the defaults unless set.
  void setLimits(const LMAnalysisLimits& limits) { limits_ = limits; }

 private:
  // The result of the PDF `bytes`, or nullopt with the error's message.
  std::optional<LMDictionary> analyze(const LMData& bytes, const LMFactsRequest& facts,
                                      std::u16string* error);

  LMAnalysisLimits limits_;
};

// Runs one task in this process, as the service would: the reply's result or
// its error.
LMXPCReply lmPerformReceiptTask(const LMDictionary& task);
// The same for a task the caller gives up, without copying its PDF.
LMXPCReply lmPerformReceiptTask(LMDictionary&& task);
