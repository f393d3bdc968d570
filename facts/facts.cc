#include "facts/facts.h"

namespace {

template <typename T>
LMValue orNull(const std::optional<T>& value) {
  return value ? LMValue(*value) : LMValue::null();
}

}  // namespace

double LMFacts::score(std::u16string_view field) const {
  const LMValue* entry = evidence.key(field);
  const LMValue* score = entry ? entry->key(u"score") : nullptr;
  if (!score) return 0.0;
  if (const double* d = score->asDouble()) return *d;
  return score->isNumber() ? static_cast<double>(score->toInt()) : 0.0;
}

bool LMFacts::failed(std::u16string_view check) const {
  for (const LMFactsCheck& c : checks) {
    if (c.name == check && !c.ok) return true;
  }
  return false;
}

LMDictionary lmFactsDictionary(const LMFacts& facts) {
  LMArray checks;
  checks.reserve(facts.checks.size());
  for (const LMFactsCheck& c : facts.checks) {
    checks.emplace_back(LMDictionary{{u"name", c.name}, {u"ok", c.ok}, {u"detail", c.detail}});
  }
  return LMDictionary{
      {u"source", orNull(facts.source)},
      {u"kind", facts.kind},
      {u"invoiceNumber", orNull(facts.invoiceNumber)},
      {u"issueDate", orNull(facts.issueDate)},
      {u"dueDate", orNull(facts.dueDate)},
      {u"currency", orNull(facts.currency)},
      {u"gross", orNull(facts.gross)},
      {u"net", orNull(facts.net)},
      {u"tax", orNull(facts.tax)},
      {u"due", orNull(facts.due)},
      {u"taxes", facts.taxes},
      {u"allowances", facts.allowances},
      {u"charges", facts.charges},
      {u"seller", facts.seller},
      {u"buyer", facts.buyer},
      {u"lines", facts.lines},
      {u"checks", std::move(checks)},
      {u"conflicts", facts.conflicts},
      {u"evidence", facts.evidence},
      {u"eInvoice", facts.eInvoice},
  };
}
