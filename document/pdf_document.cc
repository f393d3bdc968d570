#include "document/pdf_document.h"

#include <utility>
#include <vector>

#include "recognizers/regex.h"

namespace {

using PatternList = std::vector<std::shared_ptr<const LMRegex>>;

PatternList compileAll(std::initializer_list<std::u16string_view> patterns) {
  PatternList list;
  for (std::u16string_view pattern : patterns) {
    list.push_back(LMRegex::regexWithPattern(pattern, kLMRegexCaseInsensitive, false));
  }
  return list;
}

const PatternList& creatorPatterns() {
  static const auto* patterns = new PatternList(compileAll({
      uR"(^Kelvara\/.*?\(OCR\))",
      // Listed twice; kept so that the list stays as it has always been.
      uR"(^Kelvara\/.*?\(OCR\))",
      u"^ABBYY FineReader",
      u"^OCRKit",
      u"^DEVONthink",
      u"^ScanSnap",
      u"^Canon",
  }));
  return *patterns;
}

const PatternList& producerPatterns() {
  static const auto* patterns =
      new PatternList(compileAll({u"^Adobe Acrobat .*? Paper Capture Plug-in"}));
  return *patterns;
}

bool anyMatches(const PatternList& patterns, const std::u16string& text) {
  for (const auto& pattern : patterns) {
    if (pattern->numberOfMatchesInString(text) > 0) return true;
  }
  return false;
}

}  // namespace

std::shared_ptr<LMPDFDocument> LMPDFDocument::initWithData(std::span<const uint8_t> data,
                                                           const LMPdfOpenOptions& options) {
  std::shared_ptr<LMPdfSource> file = lmOpenPdfSource(data, options);
  if (!file) return nullptr;
  return std::make_shared<LMPDFDocument>(std::move(file));
}

LMPDFDocument::LMPDFDocument(std::shared_ptr<LMPdfSource> source) : source_(std::move(source)) {}

int64_t LMPDFDocument::pageCount() const { return source_ ? source_->pageCount() : 0; }

std::shared_ptr<const LMPdfSourcePage> LMPDFDocument::pageAtIndex(int64_t index) const {
  return source_ ? source_->pageAtIndex(index) : nullptr;
}

std::optional<std::u16string> LMPDFDocument::creator() const {
  return source_ ? source_->creator() : std::nullopt;
}

std::optional<std::u16string> LMPDFDocument::producer() const {
  return source_ ? source_->producer() : std::nullopt;
}

std::optional<std::u16string> LMPDFDocument::string() const {
  return source_ ? source_->string() : std::nullopt;
}

std::optional<std::u16string> LMPDFDocument::limitExceeded() const {
  return source_ ? source_->limitExceeded() : std::nullopt;
}

bool LMPDFDocument::isOCRDocument() const {
  const PatternList& creators = creatorPatterns();
  const PatternList& producers = producerPatterns();
  if (const auto creator = this->creator(); creator && !creator->empty()) {
    if (anyMatches(creators, *creator)) return true;
  }
  const auto producer = this->producer();
  if (!producer || producer->empty()) return false;
  return anyMatches(producers, *producer);
}
