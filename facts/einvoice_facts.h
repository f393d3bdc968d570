// Facts from an e-invoice record: its values signed as a bookkeeper enters
// them, its checks, and evidence that points into the XML.
#pragma once
#include <cstddef>
#include <string>

#include "einvoice/einvoice.h"
#include "facts/facts.h"

// The facts of `reading`, which must hold a record. `attachment` is the
// embedded file's name (empty for XML given directly), `count` how many
// e-invoices the document carries.
LMFacts lmEInvoiceFacts(const LMEInvoiceReading& reading, std::u16string_view attachment,
                        size_t count);
