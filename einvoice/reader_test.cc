#include "einvoice/reader.h"

#include <gtest/gtest.h>

#include "kit/unicode.h"

namespace {

TEST(EInvoiceReaderTest, ProfileNames) {
  struct Case {
    const char16_t* id;
    const char16_t* name;
  } cases[] = {
      {u"urn:factur-x.eu:1p0:minimum", u"MINIMUM"},
      {u"urn:zugferd.de:2p0:basicwl", u"BASIC WL"},
      {u"urn:cen.eu:en16931:2017#compliant#urn:zugferd.de:2p0:basic", u"BASIC"},
      {u"urn:cen.eu:en16931:2017", u"EN 16931"},
      {u"urn:cen.eu:en16931:2017#conformant#urn:zugferd.de:2p0:extended", u"EXTENDED"},
      {u"urn:ferd:CrossIndustryDocument:invoice:1p0:extended", u"EXTENDED"},
      {u"urn:cen.eu:en16931:2017#compliant#urn:xoev-de:kosit:standard:xrechnung_2.3", u"XRECHNUNG"},
      {u"urn:cen.eu:en16931:2017#compliant#urn:fdc:peppol.eu:2017:poacc:billing:3.0",
       u"PEPPOL BIS 3"},
      {u"urn:ferd:CrossIndustryDocument:invoice:1p0:comfort", nullptr},
      {u"", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.id));
    EXPECT_EQ(c.name ? std::optional<std::u16string>(c.name) : std::nullopt,
              lm_einvoice::profileName(c.id));
  }
}

}  // namespace
