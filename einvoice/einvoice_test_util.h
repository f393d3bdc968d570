// Reading the e-invoice test files of testdata/einvoice.
#pragma once
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "einvoice/einvoice.h"

namespace lmtest {

inline std::string testFile(const std::string& name) {
  std::ifstream in(std::string(LM_TESTDATA_DIR) + "/einvoice/" + name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline LMEInvoiceReading read(const std::string& xml) {
  return lmReadEInvoice({reinterpret_cast<const uint8_t*>(xml.data()), xml.size()});
}

}  // namespace lmtest
