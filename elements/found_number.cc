#include "elements/found_number.h"

LMDictionary* LMFoundNumber::mutableFeatures() {
  // Shared with kept notes: those keep the features as they were.
  if (features_ && features_.use_count() > 1) {
    features_ = std::make_shared<LMDictionary>(*features_);
  }
  return features_.get();
}

void LMFoundNumber::setFeatures(std::optional<LMDictionary> f) {
  features_ = f ? std::make_shared<LMDictionary>(std::move(*f)) : nullptr;
}

void LMFoundNumber::keepDebugInfo() {
  LMFoundElement::setDebugInfo(std::nullopt);
  keptNotes_ = KeptNotes{sortWeight_, currencyCode_, features_};
}

std::optional<LMDictionary> LMFoundNumber::debugInfo() const {
  if (!keptNotes_) return LMFoundElement::debugInfo();
  return jsonDictionaryWith(keptNotes_->sortWeight, keptNotes_->currencyCode,
                            keptNotes_->features.get());
}

void LMFoundNumber::setDebugInfo(std::optional<LMDictionary> d) {
  keptNotes_.reset();
  LMFoundElement::setDebugInfo(std::move(d));
}

LMDictionary LMFoundNumber::jsonDictionary() const {
  return jsonDictionaryWith(sortWeight_, currencyCode_, features_.get());
}

LMDictionary LMFoundNumber::jsonDictionaryWith(double sortWeight,
                                               const std::optional<std::u16string>& currencyCode,
                                               const LMDictionary* features) const {
  LMDictionary json = LMFoundElement::jsonDictionary();
  json.set(u"decimalPlaces", static_cast<int64_t>(decimalPlaces_));
  json.set(u"sortWeight", sortWeight);
  json.set(u"places", static_cast<int64_t>(decimalPlaces_));
  json.set(u"number", decimalNumber());
  json.set(u"currencyCode", currencyCode ? LMValue(*currencyCode) : LMValue::null());
  json.set(u"features", features ? LMValue(*features) : LMValue::null());
  return json;
}

void LMFoundNumber::encodeWithCoder(LMKeyedEncoder& coder) const {
  LMFoundElement::encodeWithCoder(coder);
  coder.encodeInt64(u"value", integerValue_);
  coder.encodeObject(u"numberString", lmOptionalText(numberString_));
  if (const std::optional<LMDictionary> notes = debugInfo())
    coder.encodeDictionary(u"debugInfo", *notes);
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
