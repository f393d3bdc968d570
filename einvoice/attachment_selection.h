// Picks the e-invoice among a PDF's embedded files.
//
// The document layer lists the files (LMPdfAttachment); this layer sees only
// what the choice needs, so it stays free of the PDF adapter.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "einvoice/einvoice.h"

// One embedded file as the choice sees it.
struct LMEInvoiceCandidate {
  std::u16string name;
  // The declared MIME type ("text/xml", ...); empty when none.
  std::u16string mimeType;
  // The file's /AFRelationship ("Alternative", "Data", "Source", ...); empty
  // when none.
  std::u16string relationship;
  // True when the document's /AF array names the file.
  bool inAF = false;
  // The file's bytes; not owned, must outlive the call.
  std::span<const uint8_t> bytes;
};

struct LMEInvoiceSelection {
  // Index into the candidates of the chosen file; nullopt when none is an
  // e-invoice nor meant as one.
  std::optional<size_t> index;
  // The chosen file's reading (its failure says why it is not usable).
  LMEInvoiceReading reading;
  // How many candidates are e-invoices of a supported syntax.
  size_t count = 0;
};

// The e-invoice among `candidates`: of the files whose root is a supported
// e-invoice, the first that the document's /AF names with relationship
// Alternative, Data or Source, else the first. Without any, the first file
// that is meant as an invoice but cannot be used (an invoice root in an
// unsupported syntax, or a file declared as XML by its MIME type or name
// that is no readable XML), so that the caller can say why; else nothing.
// XML of another kind is no e-invoice. Never throws.
LMEInvoiceSelection lmSelectEInvoice(std::span<const LMEInvoiceCandidate> candidates);
