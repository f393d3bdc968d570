// LMFoundTerm: a label such as "Gesamtbetrag" or "MwSt" found on the page.
#pragma once
#include <string>

#include "elements/found_element.h"

class LMFoundTerm : public LMFoundElement {
 public:
  std::u16string className() const override { return u"LMFoundTerm"; }

  // The term table entry that matched; neither archived nor written to JSON.
  const LMValue& termInfo() const { return termInfo_; }
  void setTermInfo(LMValue v) { termInfo_ = std::move(v); }

 private:
  LMValue termInfo_;
};
