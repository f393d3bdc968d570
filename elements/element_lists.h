// The lists of found elements the analysis stages take and hand on. The
// elements are shared: a stage that scores them writes into the same objects.
#pragma once
#include <memory>
#include <vector>

#include "elements/found_date.h"
#include "elements/found_element.h"
#include "elements/found_number.h"
#include "elements/found_term.h"

using LMFoundElements = std::vector<std::shared_ptr<LMFoundElement>>;
using LMFoundNumbers = std::vector<std::shared_ptr<LMFoundNumber>>;
using LMFoundDates = std::vector<std::shared_ptr<LMFoundDate>>;
using LMFoundTerms = std::vector<std::shared_ptr<LMFoundTerm>>;
