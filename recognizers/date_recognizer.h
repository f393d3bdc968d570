// recognizers/date_recognizer.h
// Finds calendar dates written in German, English and numeric forms.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/date.h"
#include "kit/text_range.h"
#include "kit/value.h"

class LMRegex;

// Ten date forms are tried as alternatives of one expression, in this order:
//   0  24.12.2023, 24. 12. 23      5  24 Dec 2023
//   1  24-12-2023                  6  12/24/2023 (month first)
//   2  2023-12-24                  7  24/12/2023 (only when 6 cannot read it)
//   3  24. Dezember 2023           8  24.12 23
//   4  December 24, 2023           9  24 Dec '23
// Month names are German and English, full and short, in any letter case,
// with a few OCR misreadings ("0kt"). A date glued to further digits is not
// read. Dates are not range-checked: 31.02.2023 becomes the calendar's
// lenient reading of it, a day in March.
class LMReceiptParserDate {
 public:
  using Block = std::function<void(std::u16string_view text, LMTextRange range,
                                   const LMDate& date)>;

  // Two-digit years pivot on currentYear(), taken once per process.
  LMReceiptParserDate();
  // Two-digit years pivot on `currentYear` instead.
  explicit LMReceiptParserDate(int64_t currentYear);

  // Every date in `text`, in text order, each at 12:00 in the current time
  // zone; `block` (optional) is called for each before it is added. A
  // two-digit year up to one year after the pivot year falls in the pivot's
  // century, a later one in the century before (pivot 2026: 27 is 2027, 28 is
  // 1928). Never throws; no dates gives an empty array.
  // Thread-safe: the expression is built once and only read afterwards.
  std::vector<LMDate> findDatesInText(std::u16string_view text,
                                      const Block& block = {}) const;

  // The year of the current date in the current calendar, taken on first use
  // and kept for the life of the process.
  static int64_t currentYear();
  // `year` itself when above 99; otherwise (also for "0023" read as 23) the
  // year of that two-digit number around `pivotYear`, as described above.
  static int64_t expandedYear(int64_t year, int64_t pivotYear);

  // Lower-case month name -> month number 1 to 12, in table order.
  static const LMDictionary& monthNames();
  // The composed expression (case-insensitive, free-spacing, anchors at lines);
  // the group named by a bare form index ("3") holds a match of that form, its
  // parts are named "3-DAY", "3-MONTH", "3-MONTHNAME", "3-YEAR" and so on.
  static const LMRegex& dateRegularExpression();
  static constexpr int kNumberOfTemplates = 10;

 private:
  int64_t currentYear_;
};
