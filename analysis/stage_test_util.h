// Hand-made found elements for the stage tests, placed on an A4 page.
#pragma once
#include <memory>
#include <string>

#include "elements/element_lists.h"

namespace lmtest {

template <typename T>
std::shared_ptr<T> placed(std::shared_ptr<T> e, LMRect box, int64_t page = 0,
                          std::optional<std::u16string> key = std::nullopt) {
  e->setBbox(box);
  e->setPageBox({0, 0, 595, 842});
  e->setPage(page);
  e->setKey(key);
  e->setString(key);
  return e;
}

inline std::shared_ptr<LMFoundNumber> number(int64_t hundredths, uint64_t places, LMRect box,
                                             double fontSize = 10) {
  auto n = placed(std::make_shared<LMFoundNumber>(hundredths, places), box);
  n->setFontSize(fontSize);
  return n;
}

// A gross or tax term whose text is its key.
inline std::shared_ptr<LMFoundTerm> term(const std::u16string& key, LMRect box, int64_t page = 0) {
  return placed(std::make_shared<LMFoundTerm>(), box, page, key);
}

inline std::shared_ptr<LMFoundElement> mention(const std::u16string& code, LMRect box) {
  return placed(std::make_shared<LMFoundElement>(), box, 0, code);
}

inline std::u16string text(const std::optional<LMDecimal>& d) {
  return d ? d->stringValue16() : u"none";
}

}  // namespace lmtest
