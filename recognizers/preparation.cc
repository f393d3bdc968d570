#include "recognizers/preparation.h"

#include "recognizers/address_detector.h"
#include "recognizers/amount_recognizer.h"
#include "recognizers/bank_recognizer.h"
#include "recognizers/currency_recognizer.h"
#include "recognizers/date_recognizer.h"
#include "recognizers/free_text_date_detector.h"
#include "recognizers/link_detector.h"
#include "recognizers/term_recognizer.h"

void lmPrepareRecognizers() {
  LMReceiptParserAmount::amountRegularExpression();
  lm_detector::prepareAddresses();
  lm_detector::prepareDates();
  lm_detector::prepareLinks();
  LMReceiptParserBank::ibanRegularExpression();
  LMReceiptParserDate::dateRegularExpression();
  LMReceiptParserTerm::taxEntries();
  LMReceiptParserTerm::grossEntries();
  LMReceiptParserCurrency::currencyRegularExpression();
}
