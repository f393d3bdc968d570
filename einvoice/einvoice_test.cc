#include "einvoice/einvoice.h"

#include <gtest/gtest.h>

#include "einvoice/einvoice_test_util.h"
#include "kit/unicode.h"

namespace {

using lmtest::read;
using lmtest::testFile;

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const size_t at = text.find(from);
  EXPECT_NE(std::string::npos, at) << from;
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

std::string show(const std::optional<LMEInvoiceAmount>& a) {
  return a ? a->value.stringValue() : "null";
}

TEST(EInvoiceTest, ReadsEachSyntaxAndProfile) {
  const char* kEveryCheck = "lines-sum net-total tax-total rate-tax gross-total due-total";
  struct Case {
    const char* file;
    const char16_t *syntax, *profile, *typeCode, *kind, *number, *currency;
    const char *issue, *due, *gross, *net, *tax, *dueAmount;
    size_t lines, rates, allowances;
    const char* checks;  // the names of the checks listed, in order
  } cases[] = {
      {"ubl-invoice.xml", u"UBL", u"PEPPOL BIS 3", u"380", u"invoice", u"INV-2024-0117", u"EUR",
       "2024-02-29", "2024-03-30", "119", "100", "19", "99", 2, 1, 0, kEveryCheck},
      {"ubl-creditnote.xml", u"UBL", u"XRECHNUNG", u"381", u"credit-note", u"CN-77", u"EUR",
       "2024-05-02", "2024-05-16", "85.6", "80", "5.6", "85.6", 1, 1, 0, kEveryCheck},
      {"cii-allowances.xml", u"CII", u"EN 16931", u"380", u"invoice", u"R-3301", u"EUR",
       "2024-03-15", "2024-04-14", "273.65", "235", "38.65", "273.65", 2, 2, 2,
       "lines-sum net-total tax-total rate-tax rate-tax gross-total due-total"},
      {"cii-exempt.xml", u"CII", u"BASIC", u"380", u"invoice", u"PT-2024-19", u"EUR",
       "2023-12-31", "", "333.33", "333.33", "0", "333.35", 1, 1, 0, kEveryCheck},
      {"cii-tax-currency.xml", u"CII", u"EXTENDED", u"380", u"invoice", u"EX-5512", u"USD",
       "2024-11-05", "", "119", "100", "19", "119", 1, 1, 0, kEveryCheck},
      {"cii10-comfort.xml", u"CII-1.0", nullptr, u"380", u"invoice", u"471102", u"EUR",
       "2013-06-05", "2013-07-05", "125.77", "106.9", "18.87", "125.77", 2, 2, 1,
       "lines-sum net-total tax-total rate-tax rate-tax gross-total due-total"},
      {"cii-minimum.xml", u"CII", u"MINIMUM", u"380", u"invoice", u"M-1", u"EUR", "2020-03-05",
       "", "235.62", "198", "37.62", "235.62", 0, 0, 0, "gross-total due-total"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    LMEInvoiceReading r = read(testFile(c.file));
    ASSERT_TRUE(r.invoice) << lmUtf8(r.failure);
    const LMEInvoice& inv = *r.invoice;
    EXPECT_EQ(c.syntax, inv.syntax);
    EXPECT_EQ(c.profile ? std::optional<std::u16string>(c.profile) : std::nullopt, inv.profile);
    EXPECT_EQ(c.typeCode, inv.typeCode);
    EXPECT_EQ(c.kind, inv.kind);
    EXPECT_EQ(c.number, inv.number.value_or(u""));
    EXPECT_EQ(c.currency, inv.currency);
    EXPECT_EQ(c.issue, lmUtf8(inv.issueDate ? inv.issueDate->isoString() : u""));
    EXPECT_EQ(c.due, lmUtf8(inv.dueDate ? inv.dueDate->isoString() : u""));
    EXPECT_EQ(c.gross, show(inv.gross));
    EXPECT_EQ(c.net, show(inv.net));
    EXPECT_EQ(c.tax, show(inv.tax));
    EXPECT_EQ(c.dueAmount, show(inv.due));
    EXPECT_EQ(c.lines, inv.lines.size());
    EXPECT_EQ(c.rates, inv.taxes.size());
    EXPECT_EQ(c.allowances, inv.allowances.size());
    std::string names;
    for (const LMEInvoiceCheck& check : r.checks) {
      names += (names.empty() ? "" : " ") + lmUtf8(check.name);
      EXPECT_TRUE(check.ok) << lmUtf8(check.detail);
    }
    EXPECT_EQ(c.checks, names);
  }
}

TEST(EInvoiceTest, ReadsPartiesLinesAllowancesAndBreakdown) {
  LMEInvoiceReading cii = read(testFile("cii-allowances.xml"));
  ASSERT_TRUE(cii.invoice);
  const LMEInvoice& inv = *cii.invoice;
  EXPECT_EQ(u"Holzwerk Brandt KG", inv.seller.name);
  EXPECT_EQ(u"DE298765432", inv.seller.vatId);  // the VA registration, not the tax number
  EXPECT_EQ(u"Kaiserstraße 12, Hinterhaus, 79098 Freiburg, DE", inv.seller.address);
  EXPECT_EQ(u"DE44500105175407324931", inv.seller.iban);
  EXPECT_EQ(u"Café Lindgren", inv.buyer.name);
  EXPECT_FALSE(inv.buyer.address);
  EXPECT_EQ(u"Oak shelf", inv.lines[0].name);
  EXPECT_EQ("4", inv.lines[0].quantity->stringValue());
  EXPECT_EQ("50", inv.lines[0].unitPrice->stringValue());
  EXPECT_EQ("7", inv.lines[1].rate->stringValue());
  EXPECT_FALSE(inv.allowances[0].charge);
  EXPECT_EQ("20", inv.allowances[0].amount.stringValue());
  EXPECT_EQ("10", inv.allowances[0].rate->stringValue());
  EXPECT_EQ(u"Loyalty discount", inv.allowances[0].reason);
  EXPECT_TRUE(inv.allowances[1].charge);
  EXPECT_EQ("19", inv.allowances[1].taxRate->stringValue());
  EXPECT_EQ("185", inv.taxes[0].basis->stringValue());
  EXPECT_EQ(u"S", inv.taxes[0].category);
  EXPECT_EQ("/rsm:CrossIndustryInvoice/rsm:ExchangedDocument/ram:IssueDateTime",
            inv.issueDatePath);

  LMEInvoiceReading exempt = read(testFile("cii-exempt.xml"));
  ASSERT_TRUE(exempt.invoice);
  EXPECT_EQ(u"E", exempt.invoice->taxes[0].category);
  EXPECT_EQ(u"Exempt: medical treatment", exempt.invoice->taxes[0].exemptionReason);
  EXPECT_EQ(u"VATEX-EU-132-1C", exempt.invoice->taxes[0].exemptionReasonCode);
  EXPECT_EQ("0.02", show(exempt.invoice->rounding));
  EXPECT_EQ("55.555", exempt.invoice->lines[0].unitPrice->stringValue());

  // The tax total in the document currency, whatever order the two come in;
  // its path (made as every total's is) keeps the document's own prefixes.
  LMEInvoiceReading foreign = read(testFile("cii-tax-currency.xml"));
  ASSERT_TRUE(foreign.invoice);
  EXPECT_EQ(u"EUR", foreign.invoice->taxCurrency);
  EXPECT_EQ("17.48", show(foreign.invoice->taxInTaxCurrency));
  EXPECT_EQ("/inv:CrossIndustryInvoice/inv:SupplyChainTradeTransaction/"
            "a:ApplicableHeaderTradeSettlement/a:SpecifiedTradeSettlementHeaderMonetarySummation/"
            "a:TaxTotalAmount",
            foreign.invoice->tax->path);

  LMEInvoiceReading ubl = read(testFile("ubl-invoice.xml"));
  ASSERT_TRUE(ubl.invoice);
  EXPECT_EQ(u"Kestrel Bürobedarf GmbH", ubl.invoice->seller.name);
  EXPECT_EQ(u"DE813245001", ubl.invoice->seller.vatId);
  EXPECT_EQ(u"DE89370400440532013000", ubl.invoice->seller.iban);
  EXPECT_EQ(u"Lindenweg 4, 06108 Halle, DE", ubl.invoice->seller.address);
  EXPECT_EQ(u"Maple Studio Ltd", ubl.invoice->buyer.name);  // the registration name
}

TEST(EInvoiceTest, HostileOrBrokenXmlGivesAReason) {
  const std::string cii = testFile("cii-allowances.xml");
  const std::string ubl = testFile("ubl-invoice.xml");
  const std::string gross = "<ram:GrandTotalAmount>273.65</ram:GrandTotalAmount>";
  auto nested = [](int levels) {
    std::string s;
    for (int i = 0; i < levels; ++i) s += "<x>";
    for (int i = 0; i < levels; ++i) s += "</x>";
    return s;
  };
  struct Case {
    const char* name;
    std::string xml;
    const char* failure;  // the failure begins so; "" for a usable record
    const char* failedChecks;
  } cases[] = {
      {"empty", "", "not XML", ""},
      {"not XML", "%PDF-1.7 \x01\x02", "not XML", ""},
      {"entities", testFile("hostile-entities.xml"), "not accepted: a document type", ""},
      {"draft namespace", testFile("hostile-draft-namespace.xml"),
       "unsupported syntax: urn:un:unece:uncefact:data:draft:CrossIndustryInvoice:1 Invoice", ""},
      {"no namespace",
       replaced(cii, "xmlns:rsm=\"urn:un:unece:uncefact:data:standard:CrossIndustryInvoice:100\"",
                ""),
       "unsupported syntax: no namespace CrossIndustryInvoice", ""},
      {"other XML", "<?xml version=\"1.0\"?><catalog><book/></catalog>",
       "not an e-invoice: no namespace catalog", ""},
      {"wrong child namespace",
       replaced(cii, "BusinessInformationEntity:100", "BusinessInformationEntity:99"),
       "missing currency", ""},
      {"no gross", replaced(cii, gross, ""), "missing total: gross", ""},
      {"gross not a number", replaced(cii, gross, "<ram:GrandTotalAmount>12,50</ram:GrandTotalAmount>"),
       "unreadable total: gross \"12,50\"", ""},
      {"gross of 20 digits",
       replaced(cii, gross, "<ram:GrandTotalAmount>12345678901234567890</ram:GrandTotalAmount>"),
       "unreadable total: gross", ""},
      {"net two points", replaced(cii, ">235.00<", ">2.35.00<"), "unreadable total: net", ""},
      {"no currency", replaced(ubl, "<cbc:DocumentCurrencyCode>EUR</cbc:DocumentCurrencyCode>", ""),
       "missing currency", ""},
      {"bad currency", replaced(ubl, ">EUR</cbc:DocumentCurrencyCode>", ">Euro</cbc:DocumentCurrencyCode>"),
       "unreadable currency \"Euro\"", ""},
      {"two roots", cii + "\n" + cii.substr(cii.find("<rsm:")), "more than one root element", ""},
      {"two invoices in one root",
       replaced(cii, "</rsm:SupplyChainTradeTransaction>",
                "</rsm:SupplyChainTradeTransaction><rsm:SupplyChainTradeTransaction/>"),
       "more than one invoice", ""},
      {"gross twice", replaced(cii, gross, gross + gross), "total stated twice: gross", ""},
      {"two UBL totals",
       replaced(ubl, "<cac:LegalMonetaryTotal>", "<cac:LegalMonetaryTotal/><cac:LegalMonetaryTotal>"),
       "more than one invoice", ""},
      // The parser itself must not recurse: 200,000 levels are read, then refused.
      {"deeply nested", replaced(cii, "<ram:ID>R-3301</ram:ID>", nested(200000)),
       "nested deeper than 64", ""},
      {"just past the limit", replaced(cii, "<ram:ID>R-3301</ram:ID>", nested(63)),
       "nested deeper than 64", ""},
      {"at the limit", replaced(cii, "<ram:TypeCode>380</ram:TypeCode>", nested(62)), "", ""},
      {"too many attributes",
       replaced(cii, "<ram:ID>R-3301</ram:ID>",
                [] {
                  std::string s = "<ram:ID";
                  for (int i = 0; i < 65; ++i) s += " a" + std::to_string(i) + "=\"\"";
                  return s + ">R-3301</ram:ID>";
                }()),
       "more than 64 attributes on one element", ""},
      {"over the size limit", cii + std::string(kLMEInvoiceMaxBytes, ' '), "over the size limit", ""},
      {"impossible due date", replaced(cii, ">20240414<", ">20231399<"), "", "field"},
      {"due date in another format",
       replaced(cii, "format=\"102\">20240414<", "format=\"610\">202404<"), "", "field"},
      {"no leap day", replaced(ubl, ">2024-02-29<", ">2023-02-29<"), "", "field"},
      {"line net not a number", replaced(cii, ">50.00</ram:LineTotalAmount>", ">fifty</ram:LineTotalAmount>"),
       "", "field"},
      {"a character reference", replaced(cii, ">R-3301<", ">R&#45;3301&amp;<"), "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LMEInvoiceReading r = read(c.xml);
    EXPECT_EQ(c.failure, lmUtf8(r.failure).substr(0, std::string(c.failure).size()));
    EXPECT_EQ(c.failure[0] == 0, r.invoice.has_value());
    EXPECT_EQ(c.failedChecks, lmtest::failedChecks(r.checks));
  }
  EXPECT_EQ(u"R-3301&", read(cases[std::size(cases) - 1].xml).invoice->number);
  EXPECT_FALSE(read(replaced(cii, ">20240414<", ">20231399<")).invoice->dueDate);
}

TEST(EInvoiceTest, KindAndBookkeepingSign) {
  // 380 and 381 come with the files above.
  EXPECT_EQ(u"credit-note", lmEInvoiceKind(u"532"));
  EXPECT_EQ(u"invoice", lmEInvoiceKind(u""));
  LMEInvoice note;
  note.kind = u"credit-note";
  LMEInvoice invoice;
  invoice.kind = u"invoice";
  auto d = [](const char* s) { return *LMDecimal::fromString(std::string_view(s)); };
  EXPECT_EQ(d("-85.60"), note.signedAmount(d("85.60")));
  EXPECT_EQ(d("-8.79"), note.signedAmount(d("-8.79")));
  EXPECT_EQ(d("-8.79"), invoice.signedAmount(d("-8.79")));
  EXPECT_EQ(d("0"), note.signedAmount(d("0")));
  // A CII 381 is a credit note too.
  LMEInvoiceReading cii = read(replaced(testFile("cii-minimum.xml"), ">380<", ">381<"));
  EXPECT_EQ(u"credit-note", cii.invoice->kind);
}

}  // namespace
