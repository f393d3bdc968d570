// What a task asks of the facts answer: whether it wants one ("facts") and
// which source it prefers ("factsFrom").
#pragma once
#include <optional>
#include <string>

#include "kit/value.h"

enum class LMFactsSource {
  kBest,      // the e-invoice's values where one is usable, else the text's
  kText,      // the text's alone (the e-invoice still feeds "conflicts")
  kEInvoice,  // the e-invoice's alone; without a usable one every value is null
};

struct LMFactsRequest {
  bool wanted = false;
  LMFactsSource source = LMFactsSource::kBest;
};

// Reads "facts" (a boolean, or a number: non-zero is true; absent or null:
// no facts) and "factsFrom" ("best", "text" or "e-invoice"; absent or null:
// "best") from `task`. Any other "factsFrom" gives nullopt and `error` says
// what is wrong; "facts" of another kind counts as false, like every other
// forgiving conversion of the task's values.
std::optional<LMFactsRequest> lmFactsRequest(const LMDictionary& task, std::u16string* error);

// "best", "text" or "e-invoice".
const char16_t* lmFactsSourceName(LMFactsSource source);
