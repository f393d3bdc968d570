// LMFoundNumber: an amount read from the page, kept as whole hundredths.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "elements/feature_log.h"
#include "elements/found_element.h"
#include "kit/decimal.h"
#include "kit/short_text.h"

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
  bool currencyNearby() const { return unset_.get().currencyNearby; }
  void setCurrencyNearby(bool v) { unset_.edit().currencyNearby = v; }
  // Made on each call from the compact form the number keeps.
  std::optional<std::u16string> currencyCode() const { return currencyCode_.value(); }
  void setCurrencyCode(const std::optional<std::u16string>& c) { currencyCode_.assign(c); }
  double sortWeight() const { return sortWeight_; }
  void setSortWeight(double v) { sortWeight_ = v; }
  // Nothing in the analysis sets the tax, gross and net weights or the net
  // factor; they stay 0.
  double taxWeight() const { return unset_.get().taxWeight; }
  void setTaxWeight(double v) { unset_.edit().taxWeight = v; }
  double grossWeight() const { return unset_.get().grossWeight; }
  void setGrossWeight(double v) { unset_.edit().grossWeight = v; }
  double netWeight() const { return unset_.get().netWeight; }
  void setNetWeight(double v) { unset_.edit().netWeight = v; }
  double taxFactor() const { return taxFactor_; }
  void setTaxFactor(double v) { taxFactor_ = v; }
  double grossFactor() const { return grossFactor_; }
  void setGrossFactor(double v) { grossFactor_ = v; }
  double netFactor() const { return unset_.get().netFactor; }
  void setNetFactor(double v) { unset_.edit().netFactor = v; }
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
  // The fields nothing in the analysis sets, kept aside only once one is set
  // so that the many numbers of a big document stay small. Copies are deep.
  struct UnsetFields {
    double taxWeight = 0;
    double grossWeight = 0;
    double netWeight = 0;
    double netFactor = 0;
    bool currencyNearby = false;
  };
  class Aside {
   public:
    Aside() = default;
    Aside(const Aside& o) : p_(o.p_ ? std::make_unique<UnsetFields>(*o.p_) : nullptr) {}
    Aside& operator=(const Aside& o) {
      if (this != &o) p_ = o.p_ ? std::make_unique<UnsetFields>(*o.p_) : nullptr;
      return *this;
    }
    const UnsetFields& get() const {
      static const UnsetFields kNone;
      return p_ ? *p_ : kNone;
    }
    UnsetFields& edit() {
      if (!p_) p_ = std::make_unique<UnsetFields>();
      return *p_;
    }

   private:
    std::unique_ptr<UnsetFields> p_;
  };

  int64_t integerValue_;
  uint64_t decimalPlaces_;
  std::optional<std::u16string> numberString_;
  LMShortText currencyCode_;
  double sortWeight_ = 0;
  double taxFactor_ = 0;
  double grossFactor_ = 0;
  Aside unset_;
  LMFeatureLog features_;
  bool hasFeatures_ = false;

  // What keepDebugInfo() kept of the fields that change during the analysis
  // (when hasKeptNotes_): the features as the first keptFeatureWrites_ writes
  // of the log made them.
  bool hasKeptNotes_ = false;
  bool keptHasFeatures_ = false;
  uint32_t keptFeatureWrites_ = 0;
  double keptSortWeight_ = 0;
  LMShortText keptCurrencyCode_;

  LMDictionary jsonDictionaryWith(double sortWeight, const LMShortText& currencyCode,
                                  bool hasFeatures, size_t featureWrites) const;
};
