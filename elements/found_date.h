// LMFoundDate: a calendar date read from the page.
#pragma once
#include <cstdint>
#include <optional>
#include <string>

#include "elements/found_element.h"
#include "kit/date.h"

class LMFoundDate : public LMFoundElement {
 public:
  std::u16string className() const override { return u"LMFoundDate"; }

  const std::optional<LMDate>& date() const { return date_; }
  void setDate(std::optional<LMDate> d) { date_ = d; }
  const std::optional<std::u16string>& dateString() const { return dateString_; }
  void setDateString(std::optional<std::u16string> s) { dateString_ = std::move(s); }

  // Reading-order key, computed on every read:
  //   trunc((10000 - page) * 10000.0 * 1000.0 + 10000.0 * bbox.y + bbox.x)
  // Earlier pages weigh more, then higher on the page, then further right.
  int64_t sortWeight() const;
  // Stored but never read back: sortWeight() always computes. Kept on purpose.
  void setSortWeight(int64_t v) { storedSortWeight_ = v; }

  LMValue value() const override { return date_ ? LMValue(*date_) : LMValue(); }
  // "yyyy-MM-dd" in the current time zone; "(null)" without a date.
  std::u16string description() const override;

  // The base keys plus "sortWeight".
  LMDictionary jsonDictionary() const override;
  // The base keys plus "date" and "dateString".
  void encodeWithCoder(LMKeyedEncoder& coder) const override;
  void initWithCoder(const LMKeyedDecoder& coder) override;

 private:
  std::optional<LMDate> date_;
  std::optional<std::u16string> dateString_;
  [[maybe_unused]] int64_t storedSortWeight_ = 0;
};
