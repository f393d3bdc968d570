#include "elements/found_number.h"

std::optional<LMDictionary> LMFoundNumber::features() const {
  if (!hasFeatures_) return std::nullopt;
  return features_.dictionary(features_.size());
}

void LMFoundNumber::setFeature(std::u16string_view key, LMValue value) {
  if (!hasFeatures_) setFeatures(LMDictionary());
  features_.set(key, std::move(value));
}

void LMFoundNumber::setFeatures(std::optional<LMDictionary> f) {
  // The log only grows, so that kept notes still find their features in it.
  if (features_.size() > 0) features_.clear();
  hasFeatures_ = f.has_value();
  if (!f) return;
  features_.reserve(f->size());
  for (const LMDictionaryEntry& e : *f) features_.set(e.key.view(), e.value);
}

void LMFoundNumber::keepDebugInfo() {
  LMFoundElement::setDebugInfo(std::nullopt);
  hasKeptNotes_ = true;
  keptHasFeatures_ = hasFeatures_;
  keptFeatureWrites_ = static_cast<uint32_t>(features_.keep());
  keptSortWeight_ = sortWeight_;
  keptCurrencyCode_ = currencyCode_;
}

std::optional<LMDictionary> LMFoundNumber::debugInfo() const {
  if (!hasKeptNotes_) return LMFoundElement::debugInfo();
  return jsonDictionaryWith(keptSortWeight_, keptCurrencyCode_, keptHasFeatures_,
                            keptFeatureWrites_);
}

void LMFoundNumber::setDebugInfo(std::optional<LMDictionary> d) {
  hasKeptNotes_ = false;
  keptCurrencyCode_.assign(std::nullopt);
  LMFoundElement::setDebugInfo(std::move(d));
}

LMDictionary LMFoundNumber::jsonDictionary() const {
  return jsonDictionaryWith(sortWeight_, currencyCode_, hasFeatures_, features_.size());
}

LMDictionary LMFoundNumber::jsonDictionaryWith(double sortWeight, const LMShortText& currencyCode,
                                               bool hasFeatures, size_t featureWrites) const {
  LMDictionary json = LMFoundElement::jsonDictionary();
  json.set(u"decimalPlaces", static_cast<int64_t>(decimalPlaces_));
  json.set(u"sortWeight", sortWeight);
  json.set(u"places", static_cast<int64_t>(decimalPlaces_));
  json.set(u"number", decimalNumber());
  const std::optional<std::u16string> code = currencyCode.value();
  json.set(u"currencyCode", code ? LMValue(*code) : LMValue::null());
  json.set(u"features",
           hasFeatures ? LMValue(features_.dictionary(featureWrites)) : LMValue::null());
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
