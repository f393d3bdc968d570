// Reading the e-invoice test files of testdata/einvoice, and their checks.
#pragma once
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "einvoice/einvoice.h"
#include "kit/test_support.h"
#include "kit/unicode.h"

namespace lmtest {

inline std::string testFile(const std::string& name) {
  const std::vector<uint8_t> bytes = lmTestdataBytes("einvoice/" + name);
  EXPECT_FALSE(bytes.empty()) << name;
  return std::string(bytes.begin(), bytes.end());
}

// The names of the failed checks, in order, apart by spaces.
inline std::string failedChecks(const std::vector<LMEInvoiceCheck>& checks) {
  std::string names;
  for (const LMEInvoiceCheck& c : checks) {
    if (!c.ok) names += (names.empty() ? "" : " ") + lmUtf8(c.name);
  }
  return names;
}

inline LMEInvoiceReading read(const std::string& xml) {
  return lmReadEInvoice({reinterpret_cast<const uint8_t*>(xml.data()), xml.size()});
}

}  // namespace lmtest
