// The PDF adapter: what the document layer needs of an opened PDF, and
// nothing more. The interface is abstract so that the page model can be
// tested with hand-made pages; lmOpenPdfSource gives the real one.
//
// Coordinates are PDF user space: points, origin at the page's lower left,
// y growing upwards, also for rotated pages. Text offsets and lengths count
// UTF-16 units of the page's `string()`.
//
// Threads: one opened file and its pages are used by one thread at a time;
// different files may be used on different threads at once.
#pragma once
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kit/cancellation.h"
#include "kit/limits.h"
#include "kit/rect.h"
#include "kit/text_range.h"
#include "kit/value.h"

// One line of a page's text.
struct LMPdfTextLine {
  // Where the line stands in the page's string() (without its "\n").
  LMTextRange range;
  // The line's bounds on the page.
  LMRect bounds;
};

// The font of a character.
struct LMPdfFont {
  std::u16string name;
  double size = 0;
};

// A link annotation.
struct LMPdfLink {
  std::u16string url;
  LMRect bounds;
};

// Attribute keys of a page's attributed string runs.
inline constexpr char16_t kLMPdfFontNameAttribute[] = u"LMFontName";
inline constexpr char16_t kLMPdfFontSizeAttribute[] = u"LMFontSize";

// A file embedded in the PDF (in the EmbeddedFiles name tree, the
// document's /AF array or a file-attachment annotation).
struct LMPdfAttachment {
  // The file name (/UF, else /F, else the name tree's key).
  std::u16string name;
  // The declared MIME type (the embedded stream's /Subtype), e.g.
  // "text/xml"; empty when none.
  std::u16string mimeType;
  // The file dictionary's /AFRelationship ("Alternative", "Data",
  // "Source", "Supplement", "Unspecified"); empty when none.
  std::u16string relationship;
  // True when the document's /AF array names the file.
  bool inAF = false;
  // The decoded contents; empty when `failure` is set. Only the first bytes
  // (`complete` false) of a file that does not start like XML text.
  std::vector<uint8_t> bytes;
  bool complete = true;
  // Why the contents could not be read ("over the size limit", "damaged
  // stream", ...); empty when they were.
  std::u16string failure;
};

// Bounds of attachment reading: one file's decoded size, and all together.
inline constexpr size_t kLMPdfAttachmentMaxBytes = 16u << 20;
inline constexpr size_t kLMPdfAttachmentsMaxTotalBytes = 64u << 20;
inline constexpr size_t kLMPdfAttachmentsMaxCount = 64;

class LMPdfSourcePage {
 public:
  virtual ~LMPdfSourcePage() = default;

  // 0-based index of the page in its document.
  virtual int64_t index() const = 0;
  // The page's media box as the PDF states it (not rotated).
  virtual LMRect mediaBox() const = 0;
  // The page's text: its lines in reading order joined with "\n". No-break
  // and typographic spaces are kept as they are. Empty when the page has no text.
  virtual const std::u16string& string() const = 0;
  // string() with runs of font attributes (kLMPdfFontNameAttribute: text,
  // kLMPdfFontSizeAttribute: double); empty when the page has no text.
  virtual const LMAttributedString& attributedString() const = 0;
  // attributedString() as a value to keep beyond the page; shared with the
  // page where the adapter can, so that it is not copied.
  virtual LMAttributedStringRef sharedAttributedString() const {
    return LMAttributedStringRef{std::make_shared<const LMAttributedString>(attributedString())};
  }
  // The lines of string(), in reading order.
  virtual const std::vector<LMPdfTextLine>& lines() const = 0;
  // The rectangle enclosing the characters of `range`: the zero rectangle
  // when the range selects nothing (length 0, or only line breaks), the null
  // rectangle when the range does not fit in string().
  virtual LMRect boundsForRange(LMTextRange range) const = 0;
  // The font at character `index` of string(); nullopt outside the text or
  // for a line break the adapter inserted.
  virtual std::optional<LMPdfFont> fontAtIndex(uint64_t index) const = 0;
  // The page's link annotations with their targets, in page order.
  virtual std::vector<LMPdfLink> links() const = 0;
};

class LMPdfSource {
 public:
  virtual ~LMPdfSource() = default;

  virtual int64_t pageCount() const = 0;
  // Page `index`, or null when the index is out of range or the page cannot
  // be read. A file of up to 64 pages keeps the pages it made until their
  // texts reach 500,000 characters; a longer or fuller one keeps a page only
  // while a caller holds it, and makes it again later: with the text and
  // lines it read before, reading the page from the PDF again only when its
  // character boxes or fonts are asked for.
  virtual std::shared_ptr<const LMPdfSourcePage> pageAtIndex(int64_t index) const = 0;
  // The document information's Creator and Producer; nullopt when absent.
  virtual std::optional<std::u16string> creator() const = 0;
  virtual std::optional<std::u16string> producer() const = 0;
  // The whole document's text: the pages' strings joined with "\n";
  // nullopt when no page has text.
  virtual std::optional<std::u16string> string() const = 0;
  // The embedded files, each once, in this order: the /AF array's, the
  // EmbeddedFiles name tree's, then those of file-attachment annotations
  // page by page. At most kLMPdfAttachmentsMaxCount; a file over
  // kLMPdfAttachmentMaxBytes, or past kLMPdfAttachmentsMaxTotalBytes for all,
  // is listed with a failure and no bytes. A PDF inside is listed like any
  // file, not opened. Empty when there are none (the default).
  virtual std::vector<LMPdfAttachment> attachments() const { return {}; }
  // The first bound of the open options' limits this document ran into, as
  // the call's error message (lmLimitMessage); nullopt while none. The page
  // count is checked on opening (a file with too many has no pages), a
  // page's characters and the memory while the page is read, the document's
  // characters as pages are read. The page that went beyond a bound keeps no
  // text; once a bound is hit, and once the call is cancelled, pages not
  // read yet have no text either, so that nothing more is spent on the
  // document.
  virtual std::optional<std::u16string> limitExceeded() const { return std::nullopt; }
};

struct LMPdfOpenOptions {
  LMAnalysisLimits limits;
  // Raised when the call's answer is no longer wanted: a page being read
  // stops at once, later pages are not read. May be null.
  std::shared_ptr<LMCancellation> cancellation;
};

// Opens PDF bytes with MuPDF. Null for bytes that are no readable PDF (an
// empty buffer included). Damaged files that MuPDF can repair are opened.
// MuPDF's warnings and errors go to the log; nothing is written elsewhere and
// nothing is thrown. The bytes are copied; the caller may free them. A file
// that MuPDF cannot open within options.limits.maxPdfLibraryBytes is null
// too.
std::shared_ptr<LMPdfSource> lmOpenPdfSource(std::span<const uint8_t> bytes,
                                         const LMPdfOpenOptions& options = {});
