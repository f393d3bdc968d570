#include "elements/found_date.h"

int64_t LMFoundDate::sortWeight() const {
  const double weight = (10000 - page()) * 10000.0 * 1000.0 + 10000.0 * bbox().y + bbox().x;
  // A box far off the page (up to infinity) must not make the cast undefined.
  return lmSaturatedInt(weight);
}

std::u16string LMFoundDate::description() const {
  return date_ ? date_->descriptionDate() : u"(null)";
}

LMDictionary LMFoundDate::jsonDictionary() const {
  LMDictionary json = LMFoundElement::jsonDictionary();
  json.set(u"sortWeight", sortWeight());
  return json;
}

void LMFoundDate::encodeWithCoder(LMKeyedEncoder& coder) const {
  LMFoundElement::encodeWithCoder(coder);
  coder.encodeObject(u"date", value());
  coder.encodeObject(u"dateString", lmOptionalText(dateString_));
}

void LMFoundDate::initWithCoder(const LMKeyedDecoder& coder) {
  LMFoundElement::initWithCoder(coder);
  const LMValue date = coder.decodeObject(u"date");
  if (const LMDate* d = date.asDate()) setDate(*d);
  setDateString(lmTextFromObject(coder.decodeObject(u"dateString")));
}
