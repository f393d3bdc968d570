#include "facts/labels.h"

#include <algorithm>
#include <unordered_map>

namespace {

using R = LMLabelRole;

// Folded forms (see lmFoldLabelText): lower case, no accents, punctuation as
// one space. A weight below 1 marks words that name the role only often.
const std::vector<LMLabel> kLabels = {
    // Gross: the total including tax.
    {u"gesamtbetrag", R::kGross, 1.0}, {u"rechnungsbetrag", R::kGross, 1.0},
    {u"rechnungsendbetrag", R::kGross, 1.0}, {u"bruttobetrag", R::kGross, 1.0},
    {u"gesamtsumme", R::kGross, 0.9}, {u"endbetrag", R::kGross, 1.0}, {u"endsumme", R::kGross, 1.0},
    {u"summe brutto", R::kGross, 1.0}, {u"bruttosumme", R::kGross, 1.0}, {u"gesamt brutto", R::kGross, 1.0},
    {u"brutto gesamt", R::kGross, 1.0}, {u"gesamtbetrag brutto", R::kGross, 1.0},
    {u"rechnungssumme", R::kGross, 1.0}, {u"zahlbetrag", R::kGross, 0.9}, {u"zu zahlen", R::kGross, 0.8},
    {u"zu zahlender betrag", R::kGross, 0.9}, {u"summe", R::kGross, 0.7}, {u"gesamt", R::kGross, 0.6},
    {u"brutto", R::kGross, 0.7}, {u"gesamtpreis", R::kGross, 0.7}, {u"total", R::kGross, 0.7},
    {u"grand total", R::kGross, 1.0}, {u"invoice total", R::kGross, 1.0}, {u"total amount", R::kGross, 0.9},
    {u"amount due", R::kGross, 0.8}, {u"total due", R::kGross, 0.8}, {u"balance due", R::kGross, 0.7},
    {u"total amount due", R::kGross, 0.9}, {u"amount payable", R::kGross, 0.8},
    {u"total payable", R::kGross, 0.9}, {u"total incl vat", R::kGross, 1.0},
    {u"total inc vat", R::kGross, 1.0}, {u"total including vat", R::kGross, 1.0},
    {u"total including tax", R::kGross, 1.0}, {u"total incl tax", R::kGross, 1.0},
    {u"total incl gst", R::kGross, 1.0}, {u"total inc gst", R::kGross, 1.0},
    {u"gross amount", R::kGross, 0.9}, {u"gross", R::kGross, 0.6}, {u"total ttc", R::kGross, 1.0},
    {u"montant ttc", R::kGross, 1.0}, {u"net a payer", R::kGross, 1.0}, {u"total a payer", R::kGross, 1.0},
    {u"montant total", R::kGross, 0.8}, {u"ttc", R::kGross, 0.6}, {u"totale", R::kGross, 0.7},
    {u"totale documento", R::kGross, 1.0}, {u"totale fattura", R::kGross, 1.0},
    {u"importo totale", R::kGross, 0.9}, {u"totale da pagare", R::kGross, 1.0},
    {u"netto a pagare", R::kGross, 1.0}, {u"iva inclusa", R::kGross, 0.6}, {u"importe total", R::kGross, 1.0},
    {u"total factura", R::kGross, 1.0}, {u"total a pagar", R::kGross, 1.0},
    {u"importe a pagar", R::kGross, 1.0}, {u"total con iva", R::kGross, 1.0},
    {u"iva incluido", R::kGross, 0.6}, {u"totaal", R::kGross, 0.7}, {u"totaalbedrag", R::kGross, 1.0},
    {u"te betalen", R::kGross, 0.9}, {u"totaal te betalen", R::kGross, 1.0},
    {u"totaal incl btw", R::kGross, 1.0}, {u"totaal inclusief btw", R::kGross, 1.0},
    {u"factuurbedrag", R::kGross, 1.0}, {u"eindtotaal", R::kGross, 1.0}, {u"payable", R::kGross, 0.6},
    {u"gesamtbeitrag", R::kGross, 0.6}, {u"rechnungsbeitrag", R::kGross, 1.0}, {u"beitrag", R::kGross, 0.5},
    {u"due payable", R::kGross, 0.9},
    {u"total t t c", R::kGross, 1.0}, {u"montant t t c", R::kGross, 1.0}, {u"t t c", R::kGross, 0.6},
    {u"montant total ttc", R::kGross, 1.0}, {u"total paid", R::kGross, 0.8},
    {u"totale complessivo", R::kGross, 1.0}, {u"totale euro", R::kGross, 0.9},
    {u"importo dovuto", R::kGross, 0.9}, {u"totale ivato", R::kGross, 1.0},
    {u"total importe", R::kGross, 1.0}, {u"totaal bedrag", R::kGross, 1.0},
    {u"totaalbedrag incl btw", R::kGross, 1.0}, {u"te voldoen", R::kGross, 0.9},
    // Net: the total without tax.
    {u"netto", R::kNet, 0.8}, {u"nettobetrag", R::kNet, 1.0}, {u"summe netto", R::kNet, 1.0},
    {u"nettosumme", R::kNet, 1.0}, {u"gesamt netto", R::kNet, 1.0}, {u"netto gesamt", R::kNet, 1.0},
    {u"gesamtbetrag netto", R::kNet, 1.0}, {u"rechnungsbetrag netto", R::kNet, 1.0},
    {u"nettowert", R::kNet, 0.9}, {u"warenwert", R::kNet, 0.7}, {u"zwischensumme", R::kNet, 0.6},
    {u"zzgl mwst", R::kNet, 0.6}, {u"zzgl ust", R::kNet, 0.6}, {u"bemessungsgrundlage", R::kNet, 0.8},
    {u"subtotal", R::kNet, 0.6}, {u"sub total", R::kNet, 0.6}, {u"net", R::kNet, 0.6},
    {u"net amount", R::kNet, 0.9}, {u"net total", R::kNet, 1.0}, {u"total net", R::kNet, 1.0},
    {u"total excl vat", R::kNet, 1.0}, {u"total excluding vat", R::kNet, 1.0},
    {u"total exc vat", R::kNet, 1.0}, {u"total excl tax", R::kNet, 1.0}, {u"total excl gst", R::kNet, 1.0},
    {u"total before tax", R::kNet, 1.0}, {u"taxable amount", R::kNet, 0.8}, {u"total ht", R::kNet, 1.0},
    {u"montant ht", R::kNet, 1.0}, {u"total hors taxes", R::kNet, 1.0}, {u"total net ht", R::kNet, 1.0},
    {u"base ht", R::kNet, 0.8}, {u"ht", R::kNet, 0.5}, {u"sous total", R::kNet, 0.6},
    {u"imponibile", R::kNet, 0.9}, {u"totale imponibile", R::kNet, 1.0}, {u"subtotale", R::kNet, 0.6},
    {u"totale netto", R::kNet, 1.0}, {u"base imponible", R::kNet, 1.0}, {u"total sin iva", R::kNet, 1.0},
    {u"importe neto", R::kNet, 1.0}, {u"neto", R::kNet, 0.7}, {u"totaal excl btw", R::kNet, 1.0},
    {u"totaal exclusief btw", R::kNet, 1.0}, {u"subtotaal", R::kNet, 0.6}, {u"nettobeitrag", R::kNet, 1.0},
    {u"total h t", R::kNet, 1.0}, {u"montant h t", R::kNet, 1.0}, {u"h t", R::kNet, 0.5},
    {u"total hors taxe", R::kNet, 1.0}, {u"montant hors taxes", R::kNet, 1.0}, {u"net ht", R::kNet, 1.0},
    {u"base imponibile", R::kNet, 1.0}, {u"importo netto", R::kNet, 1.0}, {u"imponibile iva", R::kNet, 1.0},
    {u"totale merce", R::kNet, 0.8}, {u"subtotal sin iva", R::kNet, 1.0}, {u"base", R::kNet, 0.5},
    {u"netto bedrag", R::kNet, 1.0}, {u"nettobedrag", R::kNet, 1.0}, {u"bedrag excl btw", R::kNet, 1.0},
    {u"totaal netto", R::kNet, 1.0}, {u"net total amount", R::kNet, 1.0},

    // Tax: the tax amount.
    {u"mwst", R::kTax, 0.9}, {u"mw st", R::kTax, 0.9}, {u"ust", R::kTax, 0.8},
    {u"umsatzsteuer", R::kTax, 1.0}, {u"mehrwertsteuer", R::kTax, 1.0}, {u"mwst betrag", R::kTax, 1.0},
    {u"steuerbetrag", R::kTax, 1.0}, {u"summe mwst", R::kTax, 1.0}, {u"gesamt mwst", R::kTax, 1.0},
    {u"summe ust", R::kTax, 1.0}, {u"steuer", R::kTax, 0.6}, {u"vat", R::kTax, 0.9}, {u"tax", R::kTax, 0.8},
    {u"sales tax", R::kTax, 1.0}, {u"total tax", R::kTax, 1.0}, {u"total vat", R::kTax, 1.0},
    {u"vat amount", R::kTax, 1.0}, {u"tax amount", R::kTax, 1.0}, {u"gst", R::kTax, 0.9},
    {u"cst", R::kTax, 0.7}, {u"igst", R::kTax, 0.7}, {u"tva", R::kTax, 0.9}, {u"total tva", R::kTax, 1.0},
    {u"montant tva", R::kTax, 1.0}, {u"iva", R::kTax, 0.9}, {u"totale iva", R::kTax, 1.0},
    {u"imposta", R::kTax, 0.8}, {u"cuota iva", R::kTax, 1.0}, {u"total iva", R::kTax, 1.0},
    {u"impuestos", R::kTax, 0.8}, {u"btw", R::kTax, 0.9}, {u"btw bedrag", R::kTax, 1.0},
    {u"totaal btw", R::kTax, 1.0}, {u"vat total", R::kTax, 1.0}, {u"tax total", R::kTax, 1.0},
    {u"total mwst", R::kTax, 1.0}, {u"mwst gesamt", R::kTax, 1.0}, {u"ust gesamt", R::kTax, 1.0},
    {u"total gst", R::kTax, 1.0}, {u"gst total", R::kTax, 1.0}, {u"tva totale", R::kTax, 1.0},
    {u"total taxes", R::kTax, 1.0}, {u"taxes", R::kTax, 0.7}, {u"versicherungssteuer", R::kTax, 0.9},
    {u"versicherungsteuer", R::kTax, 0.9}, {u"total des taxes", R::kTax, 1.0},
    {u"total impuestos", R::kTax, 1.0},
    {u"value added tax", R::kTax, 1.0}, {u"taxe sur la valeur ajoutee", R::kTax, 1.0},
    {u"imposta sul valore aggiunto", R::kTax, 1.0}, {u"impuesto sobre el valor anadido", R::kTax, 1.0},
    {u"omzetbelasting", R::kTax, 1.0}, {u"importo iva", R::kTax, 1.0}, {u"imposte", R::kTax, 0.7},
    {u"importe iva", R::kTax, 1.0}, {u"cuota", R::kTax, 0.7}, {u"iva total", R::kTax, 1.0},
    {u"bedrag btw", R::kTax, 1.0}, {u"btw totaal", R::kTax, 1.0}, {u"montant de la tva", R::kTax, 1.0},
    {u"t v a", R::kTax, 0.9}, {u"i v a", R::kTax, 0.9}, {u"b t w", R::kTax, 0.9},

    // The document's date.
    {u"rechnungsdatum", R::kIssueDate, 1.0}, {u"datum", R::kIssueDate, 0.7},
    {u"belegdatum", R::kIssueDate, 1.0}, {u"ausstellungsdatum", R::kIssueDate, 1.0},
    {u"gutschriftsdatum", R::kIssueDate, 1.0}, {u"datum der rechnung", R::kIssueDate, 1.0},
    {u"invoice date", R::kIssueDate, 1.0}, {u"date", R::kIssueDate, 0.7},
    {u"date of issue", R::kIssueDate, 1.0}, {u"issue date", R::kIssueDate, 1.0},
    {u"invoice issued", R::kIssueDate, 0.9}, {u"bill date", R::kIssueDate, 0.9},
    {u"receipt date", R::kIssueDate, 1.0}, {u"dated", R::kIssueDate, 0.7},
    {u"date de facture", R::kIssueDate, 1.0}, {u"date de facturation", R::kIssueDate, 1.0},
    {u"date facture", R::kIssueDate, 1.0}, {u"date d emission", R::kIssueDate, 1.0},
    {u"facture du", R::kIssueDate, 0.8}, {u"data fattura", R::kIssueDate, 1.0}, {u"data", R::kIssueDate, 0.6},
    {u"data documento", R::kIssueDate, 1.0}, {u"data emissione", R::kIssueDate, 1.0},
    {u"fecha", R::kIssueDate, 0.7}, {u"fecha factura", R::kIssueDate, 1.0},
    {u"fecha de factura", R::kIssueDate, 1.0}, {u"fecha de emision", R::kIssueDate, 1.0},
    {u"fecha expedicion", R::kIssueDate, 1.0}, {u"factuurdatum", R::kIssueDate, 1.0},
    {u"datum factuur", R::kIssueDate, 1.0}, {u"issued", R::kIssueDate, 0.8},
    {u"statement date", R::kIssueDate, 0.9}, {u"tax date", R::kIssueDate, 0.9},
    {u"billing date", R::kIssueDate, 0.9}, {u"document date", R::kIssueDate, 1.0},
    {u"date issued", R::kIssueDate, 1.0}, {u"invoice dated", R::kIssueDate, 1.0},
    {u"tax point", R::kIssueDate, 0.9}, {u"date of invoice", R::kIssueDate, 1.0},
    {u"emis le", R::kIssueDate, 0.9}, {u"emise le", R::kIssueDate, 0.9},
    {u"fecha de expedicion", R::kIssueDate, 1.0}, {u"data del documento", R::kIssueDate, 1.0},
    {u"dokumentdatum", R::kIssueDate, 1.0}, {u"druckdatum", R::kOtherDate, 0.6},
    {u"issued at", R::kIssueDate, 0.9}, {u"issued on", R::kIssueDate, 0.9}, {u"vom", R::kIssueDate, 0.5},
    {u"du", R::kIssueDate, 0.4},
    {u"data di emissione", R::kIssueDate, 1.0}, {u"data della fattura", R::kIssueDate, 1.0},
    {u"fecha de la factura", R::kIssueDate, 1.0}, {u"fecha emision", R::kIssueDate, 1.0},
    {u"fecha del documento", R::kIssueDate, 1.0}, {u"factuur datum", R::kIssueDate, 1.0},
    {u"documentdatum", R::kIssueDate, 1.0}, {u"date de la facture", R::kIssueDate, 1.0},
    {u"invoice issue date", R::kIssueDate, 1.0}, {u"date invoiced", R::kIssueDate, 1.0},
    {u"date of bill", R::kIssueDate, 1.0}, {u"bill issued", R::kIssueDate, 0.9},
    {u"statement issued", R::kIssueDate, 0.9}, {u"date of statement", R::kIssueDate, 0.9},
    {u"receipt issued", R::kIssueDate, 0.9},

    // Amounts that are none of gross, net and tax.
    {u"ruckgeld", R::kOtherAmount, 1.0}, {u"gegeben", R::kOtherAmount, 1.0},
    {u"geg bar", R::kOtherAmount, 1.0}, {u"geg", R::kOtherAmount, 0.9}, {u"trinkgeld", R::kOtherAmount, 1.0},
    {u"bereits gezahlt", R::kOtherAmount, 1.0}, {u"anzahlung", R::kOtherAmount, 1.0},
    {u"vorheriger saldo", R::kOtherAmount, 1.0}, {u"change", R::kOtherAmount, 1.0},
    {u"tip", R::kOtherAmount, 1.0}, {u"previous balance", R::kOtherAmount, 1.0},
    {u"amount paid", R::kOtherAmount, 0.6}, {u"prepaid", R::kOtherAmount, 1.0},
    {u"cash", R::kOtherAmount, 0.6}, {u"monnaie rendue", R::kOtherAmount, 1.0},
    {u"rendu", R::kOtherAmount, 1.0}, {u"acompte", R::kOtherAmount, 1.0},
    {u"deja paye", R::kOtherAmount, 1.0}, {u"resto", R::kOtherAmount, 1.0}, {u"cambio", R::kOtherAmount, 1.0},
    {u"propina", R::kOtherAmount, 1.0}, {u"wisselgeld", R::kOtherAmount, 1.0},
    {u"fooi", R::kOtherAmount, 1.0}, {u"punktestand", R::kOtherAmount, 1.0},
    {u"rabatt", R::kOtherAmount, 0.6}, {u"discount", R::kOtherAmount, 0.6}, {u"remise", R::kOtherAmount, 0.6},
    {u"sconto", R::kOtherAmount, 0.6}, {u"descuento", R::kOtherAmount, 0.6},
    {u"korting", R::kOtherAmount, 0.6}, {u"skonto", R::kOtherAmount, 0.8},
    {u"einzelpreis", R::kOtherAmount, 0.8}, {u"unit price", R::kOtherAmount, 0.8},
    {u"prix unitaire", R::kOtherAmount, 0.8}, {u"stuckpreis", R::kOtherAmount, 0.8},
    {u"opening balance", R::kOtherAmount, 1.0}, {u"balance forward", R::kOtherAmount, 1.0},
    {u"payments received", R::kOtherAmount, 1.0}, {u"payment received", R::kOtherAmount, 1.0},
    {u"credit applied", R::kOtherAmount, 1.0}, {u"deposit paid", R::kOtherAmount, 1.0},
    {u"acconto", R::kOtherAmount, 1.0}, {u"gia pagato", R::kOtherAmount, 1.0},
    {u"prezzo unitario", R::kOtherAmount, 0.8}, {u"a cuenta", R::kOtherAmount, 1.0},
    {u"anticipo", R::kOtherAmount, 1.0}, {u"entregado", R::kOtherAmount, 1.0},
    {u"precio unitario", R::kOtherAmount, 0.8}, {u"reeds betaald", R::kOtherAmount, 1.0},
    {u"aanbetaling", R::kOtherAmount, 1.0}, {u"stukprijs", R::kOtherAmount, 0.8},
    {u"prijs per stuk", R::kOtherAmount, 0.8},
    // Subtotals carried from one page to the next.
    {u"ubertrag", R::kOtherAmount, 1.0}, {u"carried forward", R::kOtherAmount, 1.0},
    {u"brought forward", R::kOtherAmount, 1.0}, {u"a reporter", R::kOtherAmount, 1.0},
    {u"riporto", R::kOtherAmount, 1.0}, {u"suma y sigue", R::kOtherAmount, 1.0},

    // Dates that are not the issue date.
    {u"falligkeitsdatum", R::kOtherDate, 1.0}, {u"fallig", R::kOtherDate, 1.0},
    {u"fallig am", R::kOtherDate, 1.0}, {u"zahlbar bis", R::kOtherDate, 1.0},
    {u"zahlungsziel", R::kOtherDate, 1.0}, {u"lieferdatum", R::kOtherDate, 1.0},
    {u"leistungsdatum", R::kOtherDate, 1.0}, {u"liefertermin", R::kOtherDate, 1.0},
    {u"leistungszeitraum", R::kOtherDate, 1.0}, {u"lieferzeitraum", R::kOtherDate, 1.0},
    {u"abrechnungszeitraum", R::kOtherDate, 1.0}, {u"zeitraum", R::kOtherDate, 1.0},
    {u"bestelldatum", R::kOtherDate, 1.0}, {u"auftragsdatum", R::kOtherDate, 1.0},
    {u"bestellung vom", R::kOtherDate, 1.0}, {u"auftrag vom", R::kOtherDate, 1.0},
    {u"gultig bis", R::kOtherDate, 1.0}, {u"due date", R::kOtherDate, 1.0}, {u"due", R::kOtherDate, 0.8},
    {u"payment due", R::kOtherDate, 1.0}, {u"delivery date", R::kOtherDate, 1.0},
    {u"order date", R::kOtherDate, 1.0}, {u"ship date", R::kOtherDate, 1.0},
    {u"shipping date", R::kOtherDate, 1.0}, {u"period", R::kOtherDate, 1.0},
    {u"billing period", R::kOtherDate, 1.0}, {u"valid until", R::kOtherDate, 1.0},
    {u"date of supply", R::kOtherDate, 0.8}, {u"date d echeance", R::kOtherDate, 1.0},
    {u"echeance", R::kOtherDate, 1.0}, {u"date de livraison", R::kOtherDate, 1.0},
    {u"date de commande", R::kOtherDate, 1.0}, {u"periode", R::kOtherDate, 1.0},
    {u"scadenza", R::kOtherDate, 1.0}, {u"data scadenza", R::kOtherDate, 1.0},
    {u"data consegna", R::kOtherDate, 1.0}, {u"data ordine", R::kOtherDate, 1.0},
    {u"periodo", R::kOtherDate, 1.0}, {u"fecha de vencimiento", R::kOtherDate, 1.0},
    {u"vencimiento", R::kOtherDate, 1.0}, {u"fecha de entrega", R::kOtherDate, 1.0},
    {u"fecha de pedido", R::kOtherDate, 1.0}, {u"vervaldatum", R::kOtherDate, 1.0},
    {u"leverdatum", R::kOtherDate, 1.0}, {u"besteldatum", R::kOtherDate, 1.0},
    {u"geboren", R::kOtherDate, 1.0}, {u"date of delivery", R::kOtherDate, 1.0},
    {u"delivery", R::kOtherDate, 0.8}, {u"lieferung", R::kOtherDate, 0.8}, {u"livraison", R::kOtherDate, 0.8},
    {u"consegna", R::kOtherDate, 0.8}, {u"entrega", R::kOtherDate, 0.8}, {u"levering", R::kOtherDate, 0.8},
    {u"date de facture associee", R::kOtherDate, 1.0}, {u"facture associee", R::kOtherDate, 1.0},
    {u"facture d origine", R::kOtherDate, 1.0}, {u"date de debut", R::kOtherDate, 1.0},
    {u"date de fin", R::kOtherDate, 1.0}, {u"original invoice", R::kOtherDate, 1.0},
    {u"referenced invoice", R::kOtherDate, 1.0}, {u"start date", R::kOtherDate, 1.0},
    {u"end date", R::kOtherDate, 1.0}, {u"ursprungliche rechnung", R::kOtherDate, 1.0},
    {u"ursprungsrechnung", R::kOtherDate, 1.0}, {u"beginn", R::kOtherDate, 0.8},
    {u"ende", R::kOtherDate, 0.8}, {u"fattura di riferimento", R::kOtherDate, 1.0},
    {u"factura original", R::kOtherDate, 1.0},
    {u"payment due date", R::kOtherDate, 1.0}, {u"invoice due date", R::kOtherDate, 1.0},
    {u"due by", R::kOtherDate, 1.0}, {u"pay by", R::kOtherDate, 1.0}, {u"payable by", R::kOtherDate, 1.0},
    {u"service period", R::kOtherDate, 1.0}, {u"statement period", R::kOtherDate, 1.0},
    {u"billing cycle", R::kOtherDate, 1.0}, {u"for the period", R::kOtherDate, 1.0},
    {u"period covered", R::kOtherDate, 1.0}, {u"service dates", R::kOtherDate, 1.0},
    {u"usage period", R::kOtherDate, 1.0}, {u"next billing date", R::kOtherDate, 1.0},
    {u"renewal date", R::kOtherDate, 1.0}, {u"expiry date", R::kOtherDate, 1.0},
    {u"expiration date", R::kOtherDate, 1.0}, {u"valid through", R::kOtherDate, 1.0},
    {u"date of service", R::kOtherDate, 1.0}, {u"service date", R::kOtherDate, 1.0},
    {u"data di scadenza", R::kOtherDate, 1.0}, {u"periodo di riferimento", R::kOtherDate, 1.0},
    {u"periodo di fatturazione", R::kOtherDate, 1.0}, {u"data ddt", R::kOtherDate, 1.0},
    {u"ddt", R::kOtherDate, 0.8}, {u"fecha vencimiento", R::kOtherDate, 1.0},
    {u"fecha de operacion", R::kOtherDate, 0.8}, {u"periodo de facturacion", R::kOtherDate, 1.0},
    {u"uiterste betaaldatum", R::kOtherDate, 1.0}, {u"factuurperiode", R::kOtherDate, 1.0},
    {u"date limite de paiement", R::kOtherDate, 1.0},
    {u"periode de facturation", R::kOtherDate, 1.0}, {u"a payer avant le", R::kOtherDate, 1.0},
    {u"date de prestation", R::kOtherDate, 1.0},

    // Titles of credit notes. "Gutschrift" mostly titles a self-billed
    // invoice, hence its low weight: alone it does not make a credit note.
    {u"credit note", R::kCreditNote, 1.0}, {u"creditnote", R::kCreditNote, 1.0},
    {u"credit memo", R::kCreditNote, 1.0}, {u"refund", R::kCreditNote, 0.8}, {u"avoir", R::kCreditNote, 1.0},
    {u"facture d avoir", R::kCreditNote, 1.0}, {u"nota di credito", R::kCreditNote, 1.0},
    {u"nota de credito", R::kCreditNote, 1.0}, {u"abono", R::kCreditNote, 1.0},
    {u"factura rectificativa", R::kCreditNote, 1.0}, {u"creditnota", R::kCreditNote, 1.0},
    {u"creditfactuur", R::kCreditNote, 1.0}, {u"rechnungskorrektur", R::kCreditNote, 1.0},
    {u"stornorechnung", R::kCreditNote, 1.0}, {u"storno", R::kCreditNote, 0.8},
    {u"gutschrift", R::kCreditNote, 0.3}, {u"erstattung", R::kCreditNote, 0.8},
    {u"ruckerstattung", R::kCreditNote, 0.8}, {u"remboursement", R::kCreditNote, 0.8},

    // Zero tax: tax-free, reverse charge, small business, export.
    {u"steuerfrei", R::kZeroTax, 1.0}, {u"umsatzsteuerfrei", R::kZeroTax, 1.0},
    {u"steuerbefreit", R::kZeroTax, 1.0}, {u"reverse charge", R::kZeroTax, 1.0},
    {u"steuerschuldnerschaft des leistungsempfangers", R::kZeroTax, 1.0},
    {u"kleinunternehmer", R::kZeroTax, 1.0}, {u"19 ustg", R::kZeroTax, 1.0},
    {u"innergemeinschaftliche lieferung", R::kZeroTax, 1.0}, {u"ausfuhrlieferung", R::kZeroTax, 1.0},
    {u"tax exempt", R::kZeroTax, 1.0}, {u"vat exempt", R::kZeroTax, 1.0},
    {u"exempt from vat", R::kZeroTax, 1.0}, {u"zero rated", R::kZeroTax, 1.0},
    {u"intra community supply", R::kZeroTax, 1.0}, {u"autoliquidation", R::kZeroTax, 1.0},
    {u"tva non applicable", R::kZeroTax, 1.0}, {u"exonere de tva", R::kZeroTax, 1.0},
    {u"livraison intracommunautaire", R::kZeroTax, 1.0}, {u"inversione contabile", R::kZeroTax, 1.0},
    {u"esente iva", R::kZeroTax, 1.0}, {u"inversion del sujeto pasivo", R::kZeroTax, 1.0},
    {u"exento de iva", R::kZeroTax, 1.0}, {u"btw verlegd", R::kZeroTax, 1.0},
    {u"vrijgesteld van btw", R::kZeroTax, 1.0},
    {u"non imponibile", R::kZeroTax, 1.0}, {u"fuori campo iva", R::kZeroTax, 1.0},
    {u"operacion exenta", R::kZeroTax, 1.0}, {u"exenta de iva", R::kZeroTax, 1.0},
    {u"outside the scope of vat", R::kZeroTax, 1.0}, {u"exoneration de tva", R::kZeroTax, 1.0},
    {u"btw vrijgesteld", R::kZeroTax, 1.0},

    // Wording of till receipts.
    {u"kassenbon", R::kReceipt, 1.0}, {u"bon nr", R::kReceipt, 1.0}, {u"bonnr", R::kReceipt, 1.0},
    {u"kasse", R::kReceipt, 0.6}, {u"quittung", R::kReceipt, 0.8}, {u"kassenbeleg", R::kReceipt, 1.0},
    {u"ticket de caisse", R::kReceipt, 1.0}, {u"scontrino", R::kReceipt, 1.0},
    {u"kassabon", R::kReceipt, 1.0}, {u"cash receipt", R::kReceipt, 1.0},
    {u"sales receipt", R::kReceipt, 1.0}, {u"tse", R::kReceipt, 0.6},

    // Titles and numbers of the document: its date often stands beside them.
    {u"rechnung", R::kTitle, 1.0}, {u"rechnung nr", R::kTitle, 1.0}, {u"rechnungsnummer", R::kTitle, 1.0},
    {u"rechnungs nr", R::kTitle, 1.0}, {u"handelsrechnung", R::kTitle, 1.0}, {u"beleg nr", R::kTitle, 1.0},
    {u"invoice", R::kTitle, 1.0}, {u"invoice no", R::kTitle, 1.0}, {u"invoice number", R::kTitle, 1.0},
    {u"tax invoice", R::kTitle, 1.0}, {u"facture", R::kTitle, 1.0}, {u"facture n", R::kTitle, 1.0},
    {u"fattura", R::kTitle, 1.0}, {u"fattura n", R::kTitle, 1.0}, {u"factura", R::kTitle, 1.0},
    {u"factuur", R::kTitle, 1.0}, {u"teilrechnung", R::kTitle, 1.0}, {u"schlussrechnung", R::kTitle, 1.0},
    {u"abschlagsrechnung", R::kTitle, 1.0}, {u"nr", R::kTitle, 0.6}, {u"nummer", R::kTitle, 0.6},
    {u"number", R::kTitle, 0.6}, {u"factuurnummer", R::kTitle, 1.0},
    {u"numero fattura", R::kTitle, 1.0}, {u"fattura nr", R::kTitle, 1.0}, {u"factura n", R::kTitle, 1.0},
    {u"numero de factura", R::kTitle, 1.0}, {u"factura no", R::kTitle, 1.0}, {u"factuur nr", R::kTitle, 1.0},
    {u"numero de facture", R::kTitle, 1.0}, {u"facture no", R::kTitle, 1.0}, {u"invoice nr", R::kTitle, 1.0},
    {u"receipt no", R::kTitle, 0.8}, {u"receipt number", R::kTitle, 0.8}, {u"bill no", R::kTitle, 0.8},
};

bool isWordUnit(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') || c > 0x7F;
}

// Lower case and accents off for Latin letters; 0 drops the unit, a second
// unit (ß, æ, œ) goes to `extra`.
char16_t foldLetter(char16_t c, char16_t& extra) {
  extra = 0;
  if (c >= u'A' && c <= u'Z') return c + 32;
  if (c < 0xC0) return c;
  if (c <= 0xDE && c != 0xD7) c += 32;  // Latin-1 capitals
  switch (c) {
    case 0xE0: case 0xE1: case 0xE2: case 0xE3: case 0xE4: case 0xE5: return u'a';
    case 0xE6: extra = u'e'; return u'a';
    case 0xE7: return u'c';
    case 0xE8: case 0xE9: case 0xEA: case 0xEB: return u'e';
    case 0xEC: case 0xED: case 0xEE: case 0xEF: return u'i';
    case 0xF1: return u'n';
    case 0xF2: case 0xF3: case 0xF4: case 0xF5: case 0xF6: case 0xF8: return u'o';
    case 0xF9: case 0xFA: case 0xFB: case 0xFC: return u'u';
    case 0xFD: case 0xFF: return u'y';
    case 0xDF: extra = u's'; return u's';
    case 0x152: case 0x153: extra = u'e'; return u'o';
    case 0x301: case 0x300: case 0x308: case 0x302: case 0x327: return 0;  // combining marks
    default: return c;
  }
}

bool isLetter(char16_t c) { return (c >= u'a' && c <= u'z'); }

// "excl. VAT", "ohne USt", "hors TVA" name the net; "incl. VAT", "inkl.
// MwSt", "TVA incluse" the gross: every word for "without" and "with" before
// every name of the tax.
const std::u16string_view kTaxNames[] = {u"ust", u"mwst", u"umsatzsteuer", u"steuer", u"vat", u"tax",
                                         u"gst", u"tva", u"taxes", u"iva", u"btw"};
const std::u16string_view kWithout[] = {u"excl", u"exkl", u"ohne", u"ex", u"hors", u"sin", u"senza",
                                        u"exclusief", u"excluding", u"exclusive of", u"before", u"net of"};
const std::u16string_view kWith[] = {u"incl", u"inkl", u"inc", u"including", u"inclusive of", u"mit",
                                     u"avec", u"con", u"inclusief", u"compresa"};

const std::vector<LMLabel>& allLabels() {
  static const auto* labels = [] {
    static std::vector<std::u16string> texts;  // stable storage for the views
    texts.reserve(std::size(kTaxNames) * (std::size(kWithout) + std::size(kWith)));
    auto* all = new std::vector<LMLabel>(kLabels);
    auto add = [&](std::u16string_view word, std::u16string_view tax, LMLabelRole role) {
      texts.push_back(std::u16string(word) + u" " + std::u16string(tax));
      for (const LMLabel& l : kLabels) {
        if (l.text == texts.back()) return;
      }
      all->push_back({texts.back(), role, 0.6});
    };
    for (std::u16string_view tax : kTaxNames) {
      for (std::u16string_view w : kWithout) add(w, tax, R::kNet);
      for (std::u16string_view w : kWith) add(w, tax, R::kGross);
    }
    return all;
  }();
  return *labels;
}

// The labels by their first word, for lookups at each word start.
const std::unordered_map<std::u16string_view, std::vector<const LMLabel*>>& byFirstWord() {
  static const auto* map = [] {
    auto* m = new std::unordered_map<std::u16string_view, std::vector<const LMLabel*>>();
    for (const LMLabel& label : allLabels()) {
      const size_t space = label.text.find(u' ');
      (*m)[label.text.substr(0, space)].push_back(&label);
    }
    for (auto& [word, labels] : *m) {
      std::sort(labels.begin(), labels.end(),
                [](const LMLabel* a, const LMLabel* b) { return a->text.size() > b->text.size(); });
    }
    return m;
  }();
  return *map;
}

}  // namespace

LMFoldedText lmFoldLabelText(std::u16string_view text) {
  LMFoldedText out;
  out.text.reserve(text.size());
  out.origin.reserve(text.size());
  auto push = [&](char16_t c, size_t from) {
    out.text.push_back(c);
    out.origin.push_back(static_cast<uint32_t>(from));
  };
  for (size_t i = 0; i < text.size(); ++i) {
    char16_t extra = 0;
    char16_t c = foldLetter(text[i], extra);
    if (c == 0) continue;
    const bool word = isWordUnit(c) || c == u'%' || c == u'&' || c == u'$' || c == u'-';
    if (c == u'-') {
      // A hyphen inside a word joins it ("Netto-Betrag", "Gesamt-\nbetrag");
      // elsewhere (a minus, a rule of dashes) it is a separator.
      const bool inside = !out.text.empty() && isLetter(out.text.back()) && i + 1 < text.size();
      if (!inside) {
        if (!out.text.empty() && out.text.back() != u' ') push(u' ', i);
        continue;
      }
      size_t j = i + 1;
      while (j < text.size() && (text[j] == u'\n' || text[j] == u' ')) ++j;
      char16_t next_extra = 0;
      if (j < text.size() && isLetter(foldLetter(text[j], next_extra))) {
        i = j - 1;  // join the parts
        continue;
      }
      push(u' ', i);
      continue;
    }
    if (!word) {
      if (!out.text.empty() && out.text.back() != u' ') push(u' ', i);
      continue;
    }
    if (c == u'%' && !out.text.empty() && out.text.back() != u' ') push(u' ', i);
    // OCR's digits among letters: "T0tal", "Summ3", "1nkl".
    if ((c == u'0' || c == u'1' || c == u'3' || c == u'5') && !out.text.empty() &&
        isLetter(out.text.back()) && i + 1 < text.size()) {
      char16_t e2 = 0;
      const char16_t next = foldLetter(text[i + 1], e2);
      if (isLetter(next) || next == u' ' || next == u'\n' || next == u':') {
        c = c == u'0' ? u'o' : c == u'1' ? u'l' : c == u'3' ? u'e' : u's';
      }
    }
    push(c, i);
    if (extra) push(extra, i);
  }
  if (!out.text.empty() && out.text.back() == u' ') {
    out.text.pop_back();
    out.origin.pop_back();
  }
  return out;
}

std::vector<LMLabelMatch> lmFindLabels(std::u16string_view folded) {
  std::vector<LMLabelMatch> out;
  const auto& index = byFirstWord();
  size_t i = 0;
  while (i < folded.size()) {
    if (!isWordUnit(folded[i]) || (i > 0 && isWordUnit(folded[i - 1]))) {
      ++i;
      continue;
    }
    size_t wordEnd = i;
    while (wordEnd < folded.size() && isWordUnit(folded[wordEnd])) ++wordEnd;
    const auto it = index.find(folded.substr(i, wordEnd - i));
    const LMLabel* found = nullptr;
    if (it != index.end()) {
      for (const LMLabel* label : it->second) {
        const size_t end = i + label->text.size();
        if (folded.substr(i, label->text.size()) == label->text &&
            (end == folded.size() || !isWordUnit(folded[end]))) {
          found = label;
          break;
        }
      }
    }
    if (found) {
      out.push_back({found, static_cast<uint32_t>(i), static_cast<uint32_t>(i + found->text.size())});
      i += found->text.size();
    } else {
      i = wordEnd;
    }
  }
  return out;
}

const std::vector<LMLabel>& lmLabelTable() { return allLabels(); }
