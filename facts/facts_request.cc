#include "facts/facts_request.h"

std::optional<LMFactsRequest> lmFactsRequest(const LMDictionary& task, std::u16string* error) {
  LMFactsRequest request;
  if (const LMValue* facts = task.key(u"facts")) {
    request.wanted = facts->isNumber() && facts->isTrue();  // booleans count as numbers
  }
  const LMValue* from = task.key(u"factsFrom");
  // Without facts the task is a standard one, whatever else it holds.
  if (!request.wanted || !from || from->isNull()) return request;
  const std::u16string* name = from->asString();
  if (name && *name == u"best") return request;
  if (name && *name == u"text") {
    request.source = LMFactsSource::kText;
    return request;
  }
  if (name && *name == u"e-invoice") {
    request.source = LMFactsSource::kEInvoice;
    return request;
  }
  if (error) *error = u"factsFrom must be \"best\", \"text\" or \"e-invoice\"";
  return std::nullopt;
}

const char16_t* lmFactsSourceName(LMFactsSource source) {
  switch (source) {
    case LMFactsSource::kText:
      return u"text";
    case LMFactsSource::kEInvoice:
      return u"e-invoice";
    case LMFactsSource::kBest:
      break;
  }
  return u"best";
}
