// The embedded files of a PDF opened with MuPDF (see LMPdfSource::attachments
// for what is listed and the bounds). Internal to the PDF adapter.
#pragma once
#include <vector>

#include <mupdf/fitz.h>
#include <mupdf/pdf.h>

#include "document/pdf_source.h"

// Never throws or longjmps out; a file that cannot be read is listed with
// its failure. Uses `ctx` and `doc` on the calling thread only.
std::vector<LMPdfAttachment> lmReadPdfAttachments(fz_context* ctx, pdf_document* doc);
