#include "elements/found_number.h"

LMDictionary LMFoundNumber::jsonDictionary() const {
  LMDictionary json = LMFoundElement::jsonDictionary();
  json.set(u"decimalPlaces", static_cast<int64_t>(decimalPlaces_));
  json.set(u"sortWeight", sortWeight_);
  json.set(u"places", static_cast<int64_t>(decimalPlaces_));
  json.set(u"number", decimalNumber());
  json.set(u"currencyCode", currencyCode_ ? LMValue(*currencyCode_) : LMValue::null());
  json.set(u"features", features_ ? LMValue(*features_) : LMValue::null());
  return json;
}

void LMFoundNumber::encodeWithCoder(LMKeyedEncoder& coder) const {
  LMFoundElement::encodeWithCoder(coder);
  coder.encodeInt64(u"value", integerValue_);
  coder.encodeObject(u"numberString", lmOptionalText(numberString_));
  if (debugInfo())
    coder.encodeDictionary(u"debugInfo", *debugInfo());
  else
    coder.encodeObject(u"debugInfo", LMValue());
}

void LMFoundNumber::initWithCoder(const LMKeyedDecoder& coder) {
  LMFoundElement::initWithCoder(coder);
  integerValue_ = coder.decodeInt64(u"value");
  setNumberString(lmTextFromObject(coder.decodeObject(u"numberString")));
  LMValue debug = coder.decodeObject(u"debugInfo");
  if (LMDictionary* d = debug.asDictionary()) setDebugInfo(std::move(*d));
}
