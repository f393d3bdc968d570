// LMFoundNumber: an amount read from the page, kept as whole hundredths.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "elements/feature_log.h"
#include "elements/found_element.h"
#include "kit/decimal.h"

class LMFoundNumber : public LMFoundElement {
 public:
  LMFoundNumber() : LMFoundNumber(0, 0) {}
  // `integerValue` in hundredths; `places` as written on the page.
  LMFoundNumber(int64_t integerValue, uint64_t places)
      : integerValue_(integerValue), decimalPlaces_(places) {}

  std::u16string className() const override { return u"LMFoundNumber"; }

  int64_t integerValue() const { return integerValue_; }
  uint64_t decimalPlaces() const { return decimalPlaces_; }
  void setDecimalPlaces(uint64_t v) { decimalPlaces_ = v; }
  const std::optional<std::u16string>& numberString() const { return numberString_; }
  void setNumberString(std::optional<std::u16string> s) { numberString_ = std::move(s); }
  // Always hundredths: integerValue / 100, whatever decimalPlaces says.
  LMDecimal decimalNumber() const { return LMDecimal::decimalNumberWithAmountInteger(integerValue_); }
  // Nothing in the analysis sets it; it stays false.
  bool currencyNearby() const { return currencyNearby_; }
  void setCurrencyNearby(bool v) { currencyNearby_ = v; }
  const std::optional<std::u16string>& currencyCode() const { return currencyCode_; }
  void setCurrencyCode(std::optional<std::u16string> c) { currencyCode_ = std::move(c); }
  double sortWeight() const { return sortWeight_; }
  void setSortWeight(double v) { sortWeight_ = v; }
  double taxWeight() const { return taxWeight_; }
  void setTaxWeight(double v) { taxWeight_ = v; }
  double grossWeight() const { return grossWeight_; }
  void setGrossWeight(double v) { grossWeight_ = v; }
  double netWeight() const { return netWeight_; }
  void setNetWeight(double v) { netWeight_ = v; }
  double taxFactor() const { return taxFactor_; }
  void setTaxFactor(double v) { taxFactor_ = v; }
  double grossFactor() const { return grossFactor_; }
  void setGrossFactor(double v) { grossFactor_ = v; }
  double netFactor() const { return netFactor_; }
  void setNetFactor(double v) { netFactor_ = v; }
  // Named features of the match, made on each call; nullopt until set.
  std::optional<LMDictionary> features() const;
  bool hasFeatures() const { return hasFeatures_; }
  // Sets one feature as LMDictionary::set does (a new key goes last), making
  // the features empty first when they were unset. The notes keepDebugInfo()
  // kept stay as they were.
  void setFeature(std::u16string_view key, LMValue value);
  void setFeatures(std::optional<LMDictionary> f);

  // Keeps jsonDictionary() as it is now as the diagnostic notes that
  // debugInfo() answers until the next keepDebugInfo() or setDebugInfo().
  // Cheaper than setDebugInfo(jsonDictionary()): the notes share the
  // features with the number, and the rest is made again when asked for,
  // from fields that do not change once a number is placed on its page.
  void keepDebugInfo();
  std::optional<LMDictionary> debugInfo() const override;
  void setDebugInfo(std::optional<LMDictionary> d) override;

  LMValue value() const override { return LMValue(decimalNumber()); }
  // The decimal's plain notation, e.g. "12.5".
  std::u16string description() const override { return decimalNumber().stringValue16(); }
  std::optional<std::u16string> stringValue() const override { return description(); }

  // The base keys plus "decimalPlaces", "sortWeight", "places" (the same
  // number as "decimalPlaces"), "number" (the decimal itself), "currencyCode"
  // and "features" (null when absent).
  LMDictionary jsonDictionary() const override;
  // The base keys plus "value" (the hundredths), "numberString", "debugInfo".
  void encodeWithCoder(LMKeyedEncoder& coder) const override;
  void initWithCoder(const LMKeyedDecoder& coder) override;

 private:
  int64_t integerValue_;
  uint64_t decimalPlaces_;
  std::optional<std::u16string> numberString_;
  std::optional<std::u16string> currencyCode_;
  double sortWeight_ = 0;
  double taxWeight_ = 0;
  double grossWeight_ = 0;
  double netWeight_ = 0;
  double taxFactor_ = 0;
  double grossFactor_ = 0;
  double netFactor_ = 0;
  LMFeatureLog features_;
  bool currencyNearby_ = false;
  bool hasFeatures_ = false;

  // What keepDebugInfo() kept of the fields that change during the analysis
  // (when hasKeptNotes_): the features as the first keptFeatureWrites_ writes
  // of the log made them.
  bool hasKeptNotes_ = false;
  bool keptHasFeatures_ = false;
  uint32_t keptFeatureWrites_ = 0;
  double keptSortWeight_ = 0;
  std::optional<std::u16string> keptCurrencyCode_;

  LMDictionary jsonDictionaryWith(double sortWeight,
                                  const std::optional<std::u16string>& currencyCode,
                                  bool hasFeatures, size_t featureWrites) const;
};
