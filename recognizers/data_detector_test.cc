#include "recognizers/data_detector.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kit/unicode.h"

// Most snippets are cut from real invoices and receipts. Line breaks stand
// where the page text has them; the page text turns no-break spaces into line
// breaks, so some snippets are split where a printed line is not.

namespace {

std::vector<LMDetectedItem> find(std::u16string_view text, LMDetectedType type) {
  std::vector<LMDetectedItem> found;
  for (LMDetectedItem& item : LMDataDetector().findInText(text)) {
    if (item.type == type) found.push_back(std::move(item));
  }
  return found;
}

std::string matched(std::u16string_view text, const LMDetectedItem& item) {
  if (!item.range.fitsIn(text.size())) return "<range outside text>";
  return lmUtf8(text.substr(item.range.location, item.range.length));
}

TEST(DataDetectorTest, FindsWrittenOutDatesAndNoneInOtherNumbers) {
  struct Case {
    std::u16string text;
    std::string match;  // the date's range; "" for none
    std::string day;    // yyyy-MM-dd
  };
  const Case cases[] = {
      {u"Invoice Date:\n42183017\nAugust 3 , 2014\n", "August 3 , 2014", "2014-08-03"},
      {u"billing period July 1 - July 31 , 2014", "July 31 , 2014", "2014-07-31"},
      {u"paid on March 3rd, 2021.", "March 3rd, 2021", "2021-03-03"},
      {u"the 3rd of March 2021", "3rd of March 2021", "2021-03-03"},
      {u"3rd March 2021", "3rd March 2021", "2021-03-03"},
      {u"Mar 3 2021", "Mar 3 2021", "2021-03-03"},
      {u"Sept. 30, 2020", "Sept. 30, 2020", "2020-09-30"},
      {u"Date: 13 Dec 2019\n", "13 Dec 2019", "2019-12-13"},
      {u"Order date 18 april 2014", "18 april 2014", "2014-04-18"},
      {u"Rechnungsdatum: 7. Mai 2014", "7. Mai 2014", "2014-05-07"},
      {u"am 3.\nM\u00e4rz 2021 geliefert", "3.\nM\u00e4rz 2021", "2021-03-03"},
      {u"Free Haut D\u00e9bit du 1er au 31 Juillet 2015", "31 Juillet 2015", "2015-07-31"},
      {u"Tuesday, 3 March 2021", "Tuesday, 3 March 2021", "2021-03-03"},
      {u"Tuesday, March 3, 2021", "Tuesday, March 3, 2021", "2021-03-03"},
      {u"Tuesday the 3rd of March 2021", "Tuesday the 3rd of March 2021", "2021-03-03"},
      {u"Mi., 3. M\u00e4rz 2021", "Mi., 3. M\u00e4rz 2021", "2021-03-03"},
      // Words before a date that are no weekday stay outside its range.
      {u"Ordered 3 March 2021", "3 March 2021", "2021-03-03"},
      {u"so 3 March 2021", "3 March 2021", "2021-03-03"},
      {u"2021/03/04", "2021/03/04", "2021-03-04"},
      {u"Datum 2021-03-04T10:00", "2021-03-04", "2021-03-04"},
      {u"2021.3.4", "2021.3.4", "2021-03-04"},
      {u"29 Feb 2024", "29 Feb 2024", "2024-02-29"},
      // No date in amounts, numbers and impossible days.
      {u"Summe 12,50 EUR", "", ""},
      {u"Tel. 0221 9641964", "", ""},
      {u"Rechnung RE-2021-03-04-0001", "", ""},  // an invoice number
      {u"12.2021.03.04", "", ""},
      {u"Art.-Nr. 2021-03-045", "", ""},
      {u"2021-13-04", "", ""},
      {u"2021-02-30", "", ""},
      {u"2023-02-29", "", ""},  // no leap year
      {u"2021-03/04", "", ""},  // mixed separators
      {u"31 April 2021", "", ""},
      {u"32 March 2021", "", ""},
      {u"March 3", "", ""},     // no year
      {u"Jan 2020", "", ""},    // no day
      {u"3 March 21", "", ""},  // two-digit years are left to the main recognizer
      {u"3 March 2021,50", "", ""},
      {u"13 Marching 2021", "", ""},
      {u"24.12.2023", "", ""},                   // numeric day-first dates too
      {u"Lieferung 3 M\u00e4rz 20215", "", ""},  // a longer number, not a year
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    const std::vector<LMDetectedItem> dates = find(c.text, LMDetectedType::kDate);
    ASSERT_EQ(dates.size(), c.match.empty() ? 0u : 1u);
    if (dates.empty()) continue;
    EXPECT_EQ(matched(c.text, dates[0]), c.match);
    ASSERT_TRUE(dates[0].date.has_value());
    EXPECT_EQ(lmUtf8(dates[0].date->descriptionDate()), c.day);
    EXPECT_EQ(*dates[0].date,
              *LMDate::fromComponents(std::stoi(c.day.substr(0, 4)), std::stoi(c.day.substr(5, 2)),
                                      std::stoi(c.day.substr(8, 2)), 12));
  }
}

TEST(DataDetectorTest, FindsLinksAndMailAddresses) {
  struct Case {
    std::u16string text;
    std::vector<std::string> links;  // the matched text, " -> " the link where the two differ
  };
  const Case cases[] = {
      {u"Coupons unter www.rewe.de/bonuscoupon.", {"www.rewe.de/bonuscoupon"}},
      {u"Infos: http://www.free.fr/assistance/, merci", {"http://www.free.fr/assistance/"}},
      {u"HTTPS://WWW.AKRETION.COM", {"HTTPS://WWW.AKRETION.COM"}},
      {u"(see https://example.org/a_(b))", {"https://example.org/a_(b)"}},
      {u"(www.tcpdf.org)", {"www.tcpdf.org"}},
      {u"visit www.watercare.co.nz.", {"www.watercare.co.nz"}},
      {u"http://localhost/", {"http://localhost/"}},
      {u"E-Mail: info@hetzner.de.", {"info@hetzner.de -> mailto:info@hetzner.de"}},
      {u"mailto:Max@Mustermann.de", {"mailto:Max@Mustermann.de"}},
      {u"https://user@shop.de/x", {"https://user@shop.de/x"}},
      {u"www.hetzner.de \u2022 info@hetzner.de",
       {"www.hetzner.de", "info@hetzner.de -> mailto:info@hetzner.de"}},
      // Not links.
      {u"file:///tmp/invoice.pdf", {}},
      {u"www.muster", {}},
      {u"www.p..;.:", {}},
      {u"http:// example", {}},
      {u"xwww.example.com", {}},
      {u"user@localhost", {}},
      {u"a@@b.de", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    std::vector<std::string> found;
    for (const LMDetectedItem& link : find(c.text, LMDetectedType::kLink)) {
      const std::string text = matched(c.text, link), target = lmUtf8(link.link);
      found.push_back(text == target ? text : text + " -> " + target);
    }
    EXPECT_EQ(found, c.links);
  }
}

TEST(DataDetectorTest, FindsAddressesWithStreetPostcodeAndCityOnly) {
  const std::string kWholeText = "<the whole text>";
  struct Case {
    std::u16string text;
    std::string match;  // "" for none
    std::vector<std::string> components;
  };
  const Case cases[] = {
      {u"Lieferant GmbH\nLieferantenstra\u00dfe 20\n80333 M\u00fcnchen\nDeutschland\n",
       "Lieferantenstra\u00dfe 20\n80333 M\u00fcnchen\nDeutschland",
       {"City=M\u00fcnchen", "Country=Deutschland", "Street=Lieferantenstra\u00dfe 20",
        "ZIP=80333"}},
      {u"Kundenstra\u00dfe 15\nDE 69876 Frankfurt", kWholeText,
       {"City=Frankfurt", "Street=Kundenstra\u00dfe 15", "ZIP=69876"}},
      {u"Warenempf\u00e4nger: Mustermarkt, Hauptstr. 46, 31157 Sarstedt",
       "Hauptstr. 46, 31157 Sarstedt",
       {"City=Sarstedt", "Street=Hauptstr. 46", "ZIP=31157"}},
      {u"QualityHosting AG - Uferweg 40-42 - D-63571 Gelnhausen",
       "Uferweg 40-42 - D-63571 Gelnhausen",
       {"City=Gelnhausen", "Street=Uferweg 40-42", "ZIP=63571"}},
      {u"Kraxi GmbH \u00b7 Flugzeugallee 17 \u00b7 12345 Papierfeld \u00b7 Deutschland",
       "Flugzeugallee 17 \u00b7 12345 Papierfeld \u00b7 Deutschland",
       {"City=Papierfeld", "Country=Deutschland", "Street=Flugzeugallee 17", "ZIP=12345"}},
      {u"Lindenstra\u00dfe\n12\n10115\nBerlin", kWholeText,
       {"City=Berlin", "Street=Lindenstra\u00dfe 12", "ZIP=10115"}},
      {u"Max Mustermann Musterstr. 12\n12345 Musterstadt",
       "Musterstr. 12\n12345 Musterstadt",
       {"City=Musterstadt", "Street=Musterstr. 12", "ZIP=12345"}},
      // Read first as one address with "Musterstr. 5" as its extra line.
      {u"Kunde Foo 12\nMusterstr. 5\n10115 Berlin",
       "Musterstr. 5\n10115 Berlin",
       {"City=Berlin", "Street=Musterstr. 5", "ZIP=10115"}},
      {u"Versicherungsort: Muster Str. 11, 12345 Bad Musterhausen",
       "Muster Str. 11, 12345 Bad Musterhausen",
       {"City=Bad Musterhausen", "Street=Muster Str. 11", "ZIP=12345"}},
      {u"Unter den Linden 5, 10117 Berlin", kWholeText,
       {"City=Berlin", "Street=Unter den Linden 5", "ZIP=10117"}},
      {u"Am Markt 1\n04109 Leipzig", kWholeText,
       {"City=Leipzig", "Street=Am Markt 1", "ZIP=04109"}},
      {u"Musterweg 1\n60325 Frankfurt am Main", kWholeText,
       {"City=Frankfurt am Main", "Street=Musterweg 1", "ZIP=60325"}},
      {u"Gro\u00dfe Ulrichstra\u00dfe 51a\n06108 Halle (Saale)", kWholeText,
       {"City=Halle (Saale)", "Street=Gro\u00dfe Ulrichstra\u00dfe 51a", "ZIP=06108"}},
      // An extra line between street and postcode; a street line on it wins.
      {u"Pappelallee 15\nHof 3\nDE 12345 Leipzig", kWholeText,
       {"City=Leipzig", "Street=Pappelallee 15", "ZIP=12345"}},
      {u"MUSTER-MARKT\n7322\nHAUPTSTRASSE 44\nDE 31157 SARSTEDT",
       "HAUPTSTRASSE 44\nDE 31157 SARSTEDT",
       {"City=SARSTEDT", "Street=HAUPTSTRASSE 44", "ZIP=31157"}},
      {u"****** Von-Bodelschwingh-Str. 6 ******\n******\n51061 K\u00f6ln-H\u00f6henhaus",
       "Von-Bodelschwingh-Str. 6 ******\n******\n51061 K\u00f6ln-H\u00f6henhaus",
       {"City=K\u00f6ln-H\u00f6henhaus", "Street=Von-Bodelschwingh-Str. 6", "ZIP=51061"}},
      {u"Mariahilfer Stra\u00dfe 1, A-1060 Wien", kWholeText,
       {"City=Wien", "Street=Mariahilfer Stra\u00dfe 1", "ZIP=1060"}},
      {u"Amazon Web Services, Inc.\n410 Terry Ave North\nSeattle, WA 98109-5210, US\n",
       "410 Terry Ave North\nSeattle, WA 98109-5210, US",
       {"City=Seattle", "Country=US", "State=WA", "Street=410 Terry Ave North", "ZIP=98109-5210"}},
      {u"4557 De Silva St\nFremont CA 94538\nUnited States", kWholeText,
       {"City=Fremont", "Country=United States", "State=CA", "Street=4557 De Silva St",
        "ZIP=94538"}},
      {u"1600 Amphitheatre Pkwy, Suite 5\nMountain View, CA 94043", kWholeText,
       {"City=Mountain View", "State=CA", "Street=1600 Amphitheatre Pkwy, Suite 5", "ZIP=94043"}},
      {u"10 Downing Street\nLondon\nSW1A 2AA", kWholeText,
       {"City=London", "Street=10 Downing Street", "ZIP=SW1A 2AA"}},
      {u"153 Victoria Street\nGB SW1B 3BN London", kWholeText,
       {"City=London", "Street=153 Victoria Street", "ZIP=SW1B 3BN"}},
      {u"40 rue Chef-de-Baie\n17000 La Rochelle", kWholeText,
       {"City=La Rochelle", "Street=40 rue Chef-de-Baie", "ZIP=17000"}},
      // No address without street, postcode and city.
      {u"Seite 1\n10115 Berlin", "", {}},  // no street word
      {u"Kunde Foo 12\n10115 Berlin", "", {}},
      {u"Musterstra\u00dfe 12\n10115", "", {}},         // no city
      {u"Musterstra\u00dfe 12\n12345 berlin", "", {}},  // no capital
      {u"Musterstra\u00dfe 12\n1234 Wien", "", {}},     // four digits need A- or CH-
      {u"Musterstra\u00dfe 12, 123456 Berlin", "", {}},
      {u"Musterstra\u00dfe 12          10115 Berlin", "", {}},  // another layout column
      {u"Musterstra\u00dfe 12\n\n\n\n10115 Berlin", "", {}},    // too far apart
      {u"Summe 12,50 EUR\n12345 Stueck", "", {}},
      {u"3 Stueck Schrauben\n10115 Berlin", "", {}},
      {u"123 Main Street\nSpringfield, XX 12345", "", {}},  // no such state
      {u"123 Main Street\nLondon\nsw1a 2aa", "", {}},
      {u"153 Victoria Street\nGB SW1B 3BN", "", {}},  // "GB" is no city
      {u"Kunde bei musterweg 3\n10115 Berlin", "", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(lmUtf8(c.text));
    const std::vector<LMDetectedItem> addresses = find(c.text, LMDetectedType::kAddress);
    ASSERT_EQ(addresses.size(), c.match.empty() ? 0u : 1u);
    if (addresses.empty()) continue;
    EXPECT_EQ(matched(c.text, addresses[0]), c.match == kWholeText ? lmUtf8(c.text) : c.match);
    std::vector<std::string> components;  // "Key=Value", in dictionary order
    for (const LMDictionaryEntry& entry : addresses[0].addressComponents) {
      components.push_back(lmUtf8(entry.key.view()) + "=" + lmUtf8(entry.value.toString()));
    }
    EXPECT_EQ(components, c.components);
  }
}

TEST(DataDetectorTest, ReportsEverythingInTextOrderWithUTF16Ranges) {
  // The receipt symbol takes two UTF-16 units.
  const std::u16string text =
      u"\U0001F9FE Hetzner Online GmbH \u2022 Industriestr. 25 \u2022 91710 Gunzenhausen\n"
      u"www.hetzner.de/news/2021-03-04 \u2022 info@hetzner.de\n"
      u"Rechnungsdatum: 4th of March 2021";
  const std::vector<LMDetectedItem> items = LMDataDetector().findInText(text);
  std::vector<std::pair<LMDetectedType, std::string>> found;
  for (const LMDetectedItem& item : items) found.emplace_back(item.type, matched(text, item));
  const std::vector<std::pair<LMDetectedType, std::string>> expected = {
      {LMDetectedType::kAddress, "Industriestr. 25 \u2022 91710 Gunzenhausen"},
      {LMDetectedType::kLink, "www.hetzner.de/news/2021-03-04"},  // no date inside it
      {LMDetectedType::kLink, "info@hetzner.de"},
      {LMDetectedType::kDate, "4th of March 2021"},
  };
  EXPECT_EQ(found, expected);
  EXPECT_TRUE(LMDataDetector().findInText(u"").empty());
}

}  // namespace
