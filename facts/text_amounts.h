// The choice of gross, net and tax among a page's amounts: labels and their
// geometry rank each amount for each role, then sets that satisfy
// net + tax = gross to the cent (and tax = net x rate for a rate the page
// prints or the country uses) beat sets that do not.
#pragma once
#include <optional>
#include <vector>

#include "elements/found_number.h"
#include "facts/facts.h"
#include "facts/text_layout.h"
#include "kit/decimal.h"

class LMReceiptParser;

// One amount chosen for a role, or a runner-up.
struct LMAmountPick {
  const LMFoundNumber* element = nullptr;  // the first of a sum's parts
  LMDecimal value;                          // magnitude, as chosen
  double score = 0;
  const LMLabelHit* anchor = nullptr;
  std::u16string text;                      // as printed ("19,00 + 7,00" for a sum)
  bool negative = false;                    // printed with a minus
};

struct LMAmountChoice {
  std::optional<LMAmountPick> gross, net, tax;
  // Up to three runners-up per role, best first, other values than the pick.
  std::vector<LMAmountPick> grossAlternatives, netAlternatives, taxAlternatives;
  std::vector<LMFactsCheck> checks;
  // The one rate that ties net and tax (0 for a document without tax), and
  // the words that say why there is none; unset when the arithmetic found
  // no rate.
  std::optional<LMDecimal> rate;
  std::optional<std::u16string> exemptionReason;
};

// `taskRates`: rates in percent to try besides those the page prints and
// the country's usual ones.
LMAmountChoice lmChooseAmounts(const LMReceiptParser& parser, const LMTextLayout& layout,
                               const std::vector<LMDecimal>& taskRates = {});

// The usual tax rates of a country (two-letter code), in percent.
std::vector<LMDecimal> lmUsualTaxRates(std::u16string_view country);
