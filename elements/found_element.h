// LMFoundElement: the record of one finding on a page (a currency mention in
// its plain form; numbers, dates and terms in the subclasses).
//
// An element is created and filled by the analysis of one document on one
// thread and shared by reference afterwards; it is not synchronised.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kit/keyed_coding.h"
#include "kit/rect.h"
#include "kit/short_text.h"
#include "kit/text_range.h"
#include "kit/value.h"

class LMFoundElement : public LMObject {
 public:
  LMFoundElement() = default;

  std::u16string className() const override { return u"LMFoundElement"; }

  // Index of the page the element was found on.
  int64_t page() const { return page_; }
  void setPage(int64_t page) { page_ = page; }
  // Bounds of that page; the zero rectangle until set. The elements of one
  // page share one copy of it.
  const LMRect& pageBox() const;
  void setPageBox(const LMRect& r);
  // Bounds of the element's text on the page.
  const LMRect& bbox() const { return bbox_; }
  void setBbox(const LMRect& r) { bbox_ = r; }
  // Where the element's text lies in the page text.
  const LMTextRange& range() const { return range_; }
  void setRange(const LMTextRange& r) { range_ = r; }
  bool isOcr() const { return ocr_; }
  void setOcr(bool v) { ocr_ = v; }
  bool isLandscape() const { return landscape_; }
  void setLandscape(bool v) { landscape_ = v; }
  bool isLetter() const { return letter_; }
  void setLetter(bool v) { letter_ = v; }
  // The text as it stands on the page; nullopt when never set.
  const std::optional<std::u16string>& string() const { return string_; }
  void setString(std::optional<std::u16string> s) { string_ = std::move(s); }
  // The normalised key the recognizer filed the element under; made on each
  // call from the compact form kept (a currency code, a term's key, or none).
  std::optional<std::u16string> key() const { return key_.value(); }
  void setKey(const std::optional<std::u16string>& k) { key_.assign(k); }
  // Free slot for the creator's own data.
  const LMValue& userInfo() const { return userInfo_ ? *userInfo_ : lmNil(); }
  void setUserInfo(LMValue v);
  // Diagnostic notes; nullopt when never set. Made on each call (numbers
  // keep what their notes are made of rather than the dictionary).
  virtual std::optional<LMDictionary> debugInfo() const;
  virtual void setDebugInfo(std::optional<LMDictionary> d);
  bool bold() const { return bold_; }
  void setBold(bool v) { bold_ = v; }
  double fontSize() const { return fontSize_; }
  void setFontSize(double v) { fontSize_ = v; }
  // Weight class of the font; nothing in the analysis assigns it, so it stays 0.
  int64_t weightOfFont() const { return weightOfFont_; }
  void setWeightOfFont(int64_t v) { weightOfFont_ = v; }

  // The element's value: nil here; the decimal or the date in subclasses.
  virtual LMValue value() const { return LMValue(); }

  // {"page", "pageBox", "bbox", "ocr", "bold", "fontSize", "letter",
  // "landscape"}; subclasses add their keys to this dictionary.
  virtual LMDictionary jsonDictionary() const;
  LMValue jsonObject() const override { return LMValue(jsonDictionary()); }

  // Archive form: "page", "pageBox", "bbox", "userInfo", "string", "key".
  // Range, flags, font fields and debugInfo are not archived.
  virtual void encodeWithCoder(LMKeyedEncoder& coder) const;
  // Reads the archive form into this freshly made element; missing keys leave
  // the zero-like values.
  virtual void initWithCoder(const LMKeyedDecoder& coder);

  // Distance from bbox() to `rect` in three bands: [0, 1] for the same text
  // row, [1, 2] for the same column, 2 or more elsewhere (in page units).
  double normalizedDistanceToRect(const LMRect& rect) const;

 private:
  int64_t page_ = 0;
  std::shared_ptr<const LMRect> pageBox_;
  LMRect bbox_;
  LMTextRange range_;
  bool ocr_ = false;
  bool landscape_ = false;
  bool letter_ = false;
  bool bold_ = false;
  std::optional<std::u16string> string_;
  LMShortText key_;
  // Rarely set, so kept aside (null for nil, nullopt) to keep every element small.
  std::shared_ptr<const LMValue> userInfo_;
  std::shared_ptr<const LMDictionary> debugInfo_;
  double fontSize_ = 0;
  int64_t weightOfFont_ = 0;
};

// A new element of the archived class `className` ("LMFoundElement",
// "LMFoundNumber", "LMFoundDate", "LMFoundTerm"), or null for any other name.
std::shared_ptr<LMFoundElement> lmMakeFoundElement(std::u16string_view className);

// The text of an optional string as an archive object: nil when absent.
LMValue lmOptionalText(const std::optional<std::u16string>& text);
// An archive object read back as an optional string.
std::optional<std::u16string> lmTextFromObject(const LMValue& value);
