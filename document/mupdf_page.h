// Pages of a PDF opened with MuPDF: the text model (lines, characters,
// fonts) built from MuPDF's structured text, within the document's limits.
// Internal to document/.
#pragma once
#include <cstdint>
#include <memory>

#include "document/mupdf_state.h"
#include "document/pdf_source.h"

// Page `index` (0-based) of `state`'s document, or null when MuPDF cannot
// load it. Its text is read on first use. Never throws.
std::shared_ptr<const LMPdfSourcePage> lmLoadMuPdfPage(std::shared_ptr<LMMuPdfState> state,
                                                      int64_t index);
