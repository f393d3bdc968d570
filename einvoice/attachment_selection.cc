#include "einvoice/attachment_selection.h"

#include "kit/strings.h"

namespace {

bool namedAsInvoiceData(const LMEInvoiceCandidate& c) {
  return c.inAF && (c.relationship == u"Alternative" || c.relationship == u"Data" ||
                    c.relationship == u"Source");
}

// Meant as XML by its declaration: the MIME type or the name's extension.
bool declaredAsXml(const LMEInvoiceCandidate& c) {
  const std::u16string mime = lmLower(c.mimeType);
  return mime == u"text/xml" || mime == u"application/xml" || lmLower(c.name).ends_with(u".xml");
}

bool supported(LMEInvoiceSyntax s) {
  return s == LMEInvoiceSyntax::kCII || s == LMEInvoiceSyntax::kCII10 ||
         s == LMEInvoiceSyntax::kUBL;
}

}  // namespace

LMEInvoiceSelection lmSelectEInvoice(std::span<const LMEInvoiceCandidate> candidates) {
  LMEInvoiceSelection selection;
  std::optional<size_t> first, named, unusable;
  for (size_t i = 0; i < candidates.size(); ++i) {
    const LMEInvoiceCandidate& c = candidates[i];
    const LMEInvoiceSyntax syntax = lmRecognizeEInvoice(c.bytes);
    if (supported(syntax)) {
      ++selection.count;
      if (!first) first = i;
      if (!named && namedAsInvoiceData(c)) named = i;
    } else if (!unusable && (syntax == LMEInvoiceSyntax::kUnsupported ||
                             (syntax == LMEInvoiceSyntax::kNotXml && declaredAsXml(c)))) {
      unusable = i;
    }
  }
  selection.index = named ? named : first ? first : unusable;
  if (selection.index) selection.reading = lmReadEInvoice(candidates[*selection.index].bytes);
  return selection;
}
